#include "comparer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fmt/format.h>
#include <limits>

namespace Tavrin::SplatProgram {
namespace {

using SplatReader::Dequantiser;
namespace Format = SplatReader::Format;

constexpr std::array<const char*, 6> names = {"normal", "colour",   "opacity",
                                              "scale",  "rotation", "coefficients"};

// What single precision adds to half a step: the converter works in it.
constexpr double relativeSlack = 2e-6;
constexpr double stepSlack = 1e-3;

double allowedFor(double step) {
    return step * (0.5 + stepSlack);
}

std::string positionText(const std::byte* record) {
    return fmt::format("({}, {}, {})", SplatReader::loadFloat(record), SplatReader::loadFloat(record + 4),
                       SplatReader::loadFloat(record + 8));
}

float storedColour(float coefficient) {
    const float value = coefficient * Format::colourGain + 0.5F;
    return value < 0.0F ? 0.0F : value > 1.0F ? 1.0F : value;
}

} // namespace

Comparer::Comparer(const SplatReader::Dataset& dataset, const SplatLayout& layout)
    : m_back(dataset.dequantiser()), m_meta(dataset.meta()), m_layout(layout),
      m_hasCoefficients(layout.hasCoefficients() && dataset.coefficientSize() > 0) {
    static_assert(names.size() == attributeCount);
    for (std::size_t i = 0; i < names.size(); ++i) {
        m_errors[i].name = names[i];
    }
    m_areCoefficientsRanged = m_hasCoefficients && m_meta.packed();
    for (std::size_t axis = 0; axis < 3; ++axis) {
        m_isNormalFinite[axis] = m_meta.normal().finite(axis);
        m_isScaleFinite[axis] = m_meta.scaleRange().finite(axis);
        m_isCoefficientFinite[axis] = m_meta.coefficients().finite(axis);
        m_areCoefficientsRanged = m_areCoefficientsRanged && m_isCoefficientFinite[axis];
        // The least number on top lets "less than" hold for no distance at all, and fail for infinite ones.
        m_coefficientSlack[axis] =
            allowedFor(m_back.coefficientStep(axis)) + std::numeric_limits<double>::min();
    }
}

void Comparer::compare(const std::byte* source, std::uint64_t number,
                       const SplatReader::RecordCursor::View& stored) {
    m_number = number;
    m_at = stored.index * Format::recordSize;
    m_file = Format::dataFile;
    if (std::memcmp(source, stored.data, 3 * sizeof(float)) != 0) {
        // Another splat, or a broken one: the rest says nothing.
        m_findings.error(
            "against-position", m_file, m_at,
            fmt::format("position {}, as splat {} of the source has it", positionText(source), m_number),
            positionText(stored.data));
        return;
    }
    std::array<float, 62> values; // filled as far as it is read
    std::memcpy(values.data(), source, m_layout.recordBytes());
    const SplatReader::Record record = SplatReader::loadRecord(stored.data);
    SplatReader::Splat splat = m_back.splat(record);
    const float* tail = values.data() + m_layout.scaleFloat();
    for (std::size_t axis = 0; axis < 3; ++axis) {
        checkRanged(normal, m_isNormalFinite[axis], values[3 + axis], splat.normal[axis],
                    m_back.normalStep(axis), record.normal[axis]);
        check(colour, storedColour(values[6 + axis]), splat.colour[axis], Dequantiser::colourStep(),
              record.colour[axis]);
        checkRanged(scale, m_isScaleFinite[axis], std::exp(double{tail[axis]}), splat.scale[axis],
                    m_back.scaleStep(axis), record.scale[axis]);
    }
    // Byte 0 comes back as 0, so the whole step lies below it.
    check(opacity, 1.0 / (std::exp(-double{tail[-1]}) + 1.0), splat.opacity,
          Dequantiser::opacityStep() * (record.opacity == 0 ? 2.0 : 1.0), record.opacity);
    checkRotation({tail[4], tail[5], tail[6], tail[3]}, record.rotation, splat);
    if (m_hasCoefficients && !(m_areCoefficientsRanged && agree(values.data() + 9, stored.coefficients))) {
        checkCoefficients(values.data() + 9, stored, splat);
    }
}

std::vector<AttributeError> Comparer::errors() const {
    std::vector<AttributeError> errors(m_errors.begin(), m_errors.end());
    AttributeError& error = errors[coefficients];
    error.values += m_agreeing * coefficientCount;
    for (std::size_t i = 0; i < coefficientCount; ++i) {
        error.squares += m_squares[i];
        error.largest = std::max(error.largest, m_largest[i]);
        const double step = m_back.coefficientStep(i / Format::coefficientsPerChannel);
        if (step > 0.0) {
            error.largestSteps = std::max(error.largestSteps, m_largest[i] / step);
        }
    }
    return errors;
}

void Comparer::difference(Attribute attribute, const std::string& expected, const std::string& found) {
    m_findings.error(
        "against-value", m_file, m_at,
        fmt::format("{} {}, as splat {} of the source has it", names[attribute], expected, m_number), found);
}

// `step` 0: kept without loss.
void Comparer::check(Attribute attribute, double expected, double found, double step,
                     std::uint32_t quantised) {
    AttributeError& error = m_errors[attribute];
    if (!std::isfinite(expected)) {
        ++error.skipped;
        if (quantised != 0) {
            difference(attribute, "stored as 0, having no finite value,", fmt::format("step {}", quantised));
        }
        return;
    }
    const double distance = std::fabs(found - expected);
    ++error.values;
    error.squares += distance * distance;
    error.largest = std::max(error.largest, distance);
    if (step > 0.0) {
        error.largestSteps = std::max(error.largestSteps, distance / step);
    }
    if (distance > allowedFor(step) + std::fabs(expected) * relativeSlack) {
        difference(attribute, fmt::format("{:.9g} within {:.3g}", expected, step / 2),
                   fmt::format("{:.9g}", found));
    }
}

// Beside an infinite value in its range nothing of an attribute is kept.
void Comparer::checkRanged(Attribute attribute, bool isRangeFinite, double expected, double found,
                           double step, std::uint32_t quantised) {
    if (isRangeFinite || !std::isfinite(expected)) {
        check(attribute, expected, found, step, quantised);
    } else {
        ++m_errors[attribute].skipped;
    }
}

// `q` in the packing's order: x, y, z, w.
void Comparer::checkRotation(const std::array<float, 4>& q, std::uint32_t word,
                             const SplatReader::Splat& splat) {
    double length = 0.0;
    for (const float c : q) {
        length += double{c} * c;
    }
    length = std::sqrt(length);
    // The converter squares in single precision, whose range ends far below and above.
    constexpr double smallest = 1e-18;
    constexpr double largest = 1e18;
    if (!(length > smallest && length < largest)) {
        ++m_errors[rotation].skipped;
        return;
    }
    const std::size_t dropped = SplatReader::unpackRotationWord(word).largest;
    const double sign = q[dropped] >= 0.0F ? 1.0 : -1.0;
    for (std::size_t i = 0; i < 4; ++i) {
        const double expected = sign * q[i] / length;
        const double found = splat.rotation[(i + 1) % 4];
        if (i != dropped) {
            check(rotation, expected, found, Dequantiser::rotationStep(), 0);
        }
        if (std::fabs(q[i]) > std::fabs(q[dropped]) * (1.0F + static_cast<float>(relativeSlack))) {
            difference(rotation, fmt::format("with component {} as the largest", i),
                       fmt::format("component {}", dropped));
        }
    }
}

// The coefficients are nine tenths of a comparison, and nearly all of them agree: one pass without branches
// finds that out. When it is false, as for every value that is not finite, nothing was counted, and
// checkCoefficients says what differs.
bool Comparer::agree(const float* source, const std::byte* stored) {
    constexpr std::size_t perChannel = Format::coefficientsPerChannel;
    std::array<std::array<std::uint32_t, perChannel>, 3> quantised;
    for (std::size_t k = 0; k < perChannel; ++k) {
        const auto word =
            SplatReader::unpackCoefficientWord(SplatReader::loadUnsigned<std::uint32_t>(stored + 4 * k));
        for (std::size_t channel = 0; channel < 3; ++channel) {
            quantised[channel][k] = word.channel[channel];
        }
    }
    Distances distances;
    std::uint32_t within = 0;
    for (std::size_t channel = 0; channel < 3; ++channel) {
        const double slack = m_coefficientSlack[channel];
        for (std::size_t k = 0; k < perChannel; ++k) {
            const std::size_t i = channel * perChannel + k;
            const double expected = source[i];
            distances[i] = std::fabs(m_back.coefficient(channel, quantised[channel][k]) - expected);
            within += distances[i] < slack + std::fabs(expected) * relativeSlack ? 1 : 0;
        }
    }
    if (within != distances.size()) {
        return false;
    }
    ++m_agreeing;
    for (std::size_t i = 0; i < distances.size(); ++i) {
        m_squares[i] += distances[i] * distances[i];
        m_largest[i] = std::max(m_largest[i], distances[i]);
    }
    return true;
}

void Comparer::checkCoefficients(const float* source, const SplatReader::RecordCursor::View& stored,
                                 SplatReader::Splat& splat) {
    m_back.coefficients(stored.coefficients, splat);
    const std::uint64_t size = m_meta.packed() ? Format::packedCoefficientSize : Format::rawCoefficientSize;
    m_file = Format::coefficientFile;
    for (std::size_t i = 0; i < splat.coefficients.size(); ++i) {
        const std::size_t channel = i / Format::coefficientsPerChannel;
        const std::size_t k = i % Format::coefficientsPerChannel;
        m_at = stored.index * size + (m_meta.packed() ? 4 * k : 4 * (3 * k + channel));
        if (!m_meta.packed()) {
            check(coefficients, source[i], splat.coefficients[i], 0.0, 0);
            continue;
        }
        const auto word = SplatReader::unpackCoefficientWord(
            SplatReader::loadUnsigned<std::uint32_t>(stored.coefficients + 4 * k));
        checkRanged(coefficients, m_isCoefficientFinite[channel], source[i], splat.coefficients[i],
                    m_back.coefficientStep(channel), word.channel[channel]);
    }
}

} // namespace Tavrin::SplatProgram
