#include "program/compare/comparer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fmt/format.h>
#include <limits>
#include <numeric>

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

double opacityOf(float logit) {
    return 1.0 / (std::exp(-double{logit}) + 1.0);
}

// Byte 0 comes back as 0, so the whole step lies below it.
double opacityStepOf(std::uint8_t stored) {
    return Dequantiser::opacityStep() * (stored == 0 ? 2.0 : 1.0);
}

double lengthOf(const std::array<float, 4>& q) {
    double squares = 0.0;
    for (const float c : q) {
        squares += double{c} * c;
    }
    return std::sqrt(squares);
}

// The converter squares in single precision, whose range ends far below and above.
bool isLengthKept(double length) {
    constexpr double smallest = 1e-18;
    constexpr double largest = 1e18;
    return length > smallest && length < largest;
}

// Whether a component is larger than the one that was dropped as the largest.
bool isLarger(float component, float dropped) {
    return std::fabs(component) > std::fabs(dropped) * (1.0F + static_cast<float>(relativeSlack));
}

} // namespace

Comparer::Comparer(const SplatReader::Dataset& dataset, const SplatLayout& layout)
    : m_back(dataset.dequantiser()), m_meta(dataset.meta()), m_layout(layout),
      m_hasCoefficients(layout.hasCoefficients() && dataset.coefficientSize() > 0) {
    static_assert(names.size() == attributeCount);
    for (std::size_t i = 0; i < names.size(); ++i) {
        m_errors[i].name = names[i];
    }
    // The least number on top lets "less than" hold for no distance at all, and fail for infinite ones.
    constexpr double least = std::numeric_limits<double>::min();
    m_areCoefficientsRanged = m_hasCoefficients && m_meta.packed();
    for (std::size_t axis = 0; axis < 3; ++axis) {
        m_isNormalFinite[axis] = m_meta.normal().finite(axis);
        m_isScaleFinite[axis] = m_meta.scaleRange().finite(axis);
        m_isHeadRanged = m_isHeadRanged && m_isNormalFinite[axis] && m_isScaleFinite[axis];
        m_headStep[normalLane + axis] = m_back.normalStep(axis);
        m_headStep[colourLane + axis] = Dequantiser::colourStep();
        m_headStep[scaleLane + axis] = m_back.scaleStep(axis);
        m_isCoefficientFinite[axis] = m_meta.coefficients().finite(axis);
        m_areCoefficientsRanged = m_areCoefficientsRanged && m_isCoefficientFinite[axis];
        m_coefficientSlack[axis] = allowedFor(m_back.coefficientStep(axis)) + least;
    }
    m_headStep[opacityLane] = opacityStepOf(1);
    m_headStep[noOpacityLane] = opacityStepOf(0);
    for (std::size_t i = 0; i < 4; ++i) {
        m_headStep[rotationLane + i] = Dequantiser::rotationStep();
    }
    for (std::size_t lane = 0; lane < laneCount; ++lane) {
        m_headSlack[lane] = allowedFor(m_headStep[lane]) + least;
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
    if (!agreeHead(values.data(), record)) {
        checkHead(values.data(), record);
    }
    if (m_hasCoefficients &&
        !(m_areCoefficientsRanged && agreeCoefficients(values.data() + 9, stored.coefficients))) {
        checkCoefficients(values.data() + 9, stored);
    }
}

std::vector<AttributeError> Comparer::errors() const {
    std::vector<AttributeError> errors(m_errors.begin(), m_errors.end());
    for (std::size_t axis = 0; axis < 3; ++axis) {
        addLane(errors[normal], m_headErrors, normalLane + axis, m_headStep[normalLane + axis]);
        addLane(errors[colour], m_headErrors, colourLane + axis, m_headStep[colourLane + axis]);
        addLane(errors[scale], m_headErrors, scaleLane + axis, m_headStep[scaleLane + axis]);
        for (std::size_t k = 0; k < Format::coefficientsPerChannel; ++k) {
            addLane(errors[coefficients], m_coefficientErrors[axis], k, m_back.coefficientStep(axis));
        }
    }
    addLane(errors[opacity], m_headErrors, opacityLane, m_headStep[opacityLane]);
    addLane(errors[opacity], m_headErrors, noOpacityLane, m_headStep[noOpacityLane]);
    for (std::size_t i = 0; i < 4; ++i) {
        addLane(errors[rotation], m_headErrors, rotationLane + i, m_headStep[rotationLane + i]);
    }
    for (const Attribute attribute :
         {normal, colour, scale, rotation}) { // of a rotation three parts are kept
        errors[attribute].values += 3 * m_agreeingHeads;
    }
    errors[opacity].values += m_agreeingHeads;
    errors[coefficients].values += m_agreeingCoefficients * coefficientCount;
    return errors;
}

void Comparer::LaneErrors::add(const Lanes& distances) {
    for (std::size_t lane = 0; lane < laneCount; ++lane) {
        squares[lane] += distances[lane] * distances[lane];
        largest[lane] = std::max(largest[lane], distances[lane]);
    }
}

void Comparer::addLane(AttributeError& error, const LaneErrors& lanes, std::size_t lane, double step) {
    error.squares += lanes.squares[lane];
    error.largest = std::max(error.largest, lanes.largest[lane]);
    if (step > 0.0) {
        error.largestSteps = std::max(error.largestSteps, lanes.largest[lane] / step);
    }
}

// Nearly every splat agrees in everything, and one pass without branches finds that out. When it is false, as
// for every value that is not finite, nothing was counted, and checkHead says what differs.
bool Comparer::agreeHead(const float* source, const SplatReader::Record& record) {
    const float* tail = source + m_layout.scaleFloat();
    const std::array<float, 4> q = {tail[4], tail[5], tail[6], tail[3]};
    const double length = lengthOf(q);
    if (!m_isHeadRanged || !isLengthKept(length)) {
        return false;
    }
    Lanes expected{};
    Lanes found{};
    for (std::size_t axis = 0; axis < 3; ++axis) {
        expected[normalLane + axis] = source[3 + axis];
        found[normalLane + axis] = m_back.normal(axis, record.normal[axis]);
        expected[colourLane + axis] = storedColour(source[6 + axis]);
        found[colourLane + axis] = m_back.colour(axis, record.colour[axis]);
        expected[scaleLane + axis] = std::exp(double{tail[axis]});
        found[scaleLane + axis] = m_back.scale(axis, record.scale[axis]);
    }
    const std::size_t itsLane = record.opacity == 0 ? noOpacityLane : opacityLane;
    expected[itsLane] = opacityOf(tail[-1]);
    found[itsLane] = m_back.opacity(record.opacity);
    const std::size_t dropped = SplatReader::unpackRotationWord(record.rotation).largest;
    const std::array<double, 4> back = SplatReader::unpackRotation(record.rotation);
    const double sign = q[dropped] >= 0.0F ? 1.0 : -1.0;
    bool isLargest = true;
    for (std::size_t i = 0; i < 4; ++i) {
        expected[rotationLane + i] = i == dropped ? 0.0 : sign * q[i] / length;
        found[rotationLane + i] = i == dropped ? 0.0 : back[(i + 1) % 4];
        isLargest = isLargest && !isLarger(q[i], q[dropped]);
    }
    Lanes distances;
    Lanes differing;
    for (std::size_t lane = 0; lane < laneCount; ++lane) {
        distances[lane] = std::fabs(found[lane] - expected[lane]);
        const double allowed = m_headSlack[lane] + std::fabs(expected[lane]) * relativeSlack;
        differing[lane] = distances[lane] < allowed ? 0.0 : 1.0;
    }
    if (!isLargest || std::accumulate(differing.begin(), differing.end(), 0.0) != 0.0) {
        return false;
    }
    ++m_agreeingHeads;
    m_headErrors.add(distances);
    return true;
}

void Comparer::checkHead(const float* source, const SplatReader::Record& record) {
    const SplatReader::Splat splat = m_back.splat(record);
    const float* tail = source + m_layout.scaleFloat();
    for (std::size_t axis = 0; axis < 3; ++axis) {
        checkRanged(normal, m_isNormalFinite[axis], source[3 + axis], splat.normal[axis],
                    m_back.normalStep(axis), record.normal[axis]);
        check(colour, storedColour(source[6 + axis]), splat.colour[axis], Dequantiser::colourStep(),
              record.colour[axis]);
        checkRanged(scale, m_isScaleFinite[axis], std::exp(double{tail[axis]}), splat.scale[axis],
                    m_back.scaleStep(axis), record.scale[axis]);
    }
    check(opacity, opacityOf(tail[-1]), splat.opacity, opacityStepOf(record.opacity), record.opacity);
    checkRotation({tail[4], tail[5], tail[6], tail[3]}, record.rotation, splat);
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
    const double length = lengthOf(q);
    if (!isLengthKept(length)) {
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
        if (isLarger(q[i], q[dropped])) {
            difference(rotation, fmt::format("with component {} as the largest", i),
                       fmt::format("component {}", dropped));
        }
    }
}

// What agreeHead is to checkHead, for the coefficients and checkCoefficients. The sixteenth lane holds what
// follows a channel, in the source as in the record, and does not count.
bool Comparer::agreeCoefficients(const float* source, const std::byte* stored) {
    constexpr std::size_t perChannel = Format::coefficientsPerChannel;
    static_assert(laneCount == perChannel + 1 && Format::packedCoefficientSize == 4 * laneCount);
    std::array<std::array<std::uint32_t, laneCount>, 3> quantised;
    for (std::size_t k = 0; k < laneCount; ++k) {
        const auto word =
            SplatReader::unpackCoefficientWord(SplatReader::loadUnsigned<std::uint32_t>(stored + 4 * k));
        for (std::size_t channel = 0; channel < 3; ++channel) {
            quantised[channel][k] = word.channel[channel];
        }
    }
    std::array<Lanes, 3> distances;
    Lanes differing{};
    for (std::size_t channel = 0; channel < 3; ++channel) {
        const double slack = m_coefficientSlack[channel];
        for (std::size_t k = 0; k < laneCount; ++k) {
            const double expected = source[channel * perChannel + k];
            const double distance = std::fabs(m_back.coefficient(channel, quantised[channel][k]) - expected);
            distances[channel][k] = distance;
            differing[k] += distance < slack + std::fabs(expected) * relativeSlack ? 0.0 : 1.0;
        }
    }
    if (std::accumulate(differing.begin(), differing.begin() + perChannel, 0.0) != 0.0) {
        return false;
    }
    ++m_agreeingCoefficients;
    for (std::size_t channel = 0; channel < 3; ++channel) {
        m_coefficientErrors[channel].add(distances[channel]);
    }
    return true;
}

void Comparer::checkCoefficients(const float* source, const SplatReader::RecordCursor::View& stored) {
    SplatReader::Splat splat;
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
