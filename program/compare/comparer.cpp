#include "program/compare/comparer.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>

namespace Tavrin::SplatProgram {
namespace {

using SplatReader::Dequantiser;
namespace Format = SplatReader::Format;

constexpr std::array<const char*, 6> names = {"normal", "colour",   "opacity",
                                              "scale",  "rotation", "coefficients"};

// Relative tolerance beyond half a step, since the converter computes in single precision.
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
    const float value = coefficient * Format::colourGain + 0.5f;
    return value < 0.0f ? 0.0f : value > 1.0f ? 1.0f : value;
}

double opacityOf(float logit) {
    return 1.0 / (std::exp(-double{logit}) + 1.0);
}

// Byte 0 reads back as 0, the end of its interval, so its error can be a whole step.
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

// The converter squares components in single precision, which overflows and underflows for extreme lengths.
bool isLengthKept(double length) {
    constexpr double smallest = 1e-18;
    constexpr double largest = 1e18;
    return length > smallest && length < largest;
}

// True if a component is larger than the one that was dropped as the largest.
bool isLarger(float component, float dropped) {
    return std::fabs(component) > std::fabs(dropped) * (1.0f + static_cast<float>(relativeSlack));
}

} // namespace

Comparer::Comparer(const SplatReader::Dataset& dataset, bool hasCoefficients)
    : back_(dataset.dequantiser()), meta_(dataset.meta()),
      layout_(GaussionSplat::recordLayout(hasCoefficients)),
      hasCoefficients_(hasCoefficients && dataset.coefficientSize() > 0) {
    static_assert(names.size() == attributeCount);
    for (std::size_t i = 0; i < names.size(); ++i) {
        errors_[i].name = names[i];
    }
    // The comparison is "distance < slack". The smallest positive number makes it true for a distance and a
    // step of 0.
    constexpr double least = std::numeric_limits<double>::min();
    areCoefficientsRanged_ = hasCoefficients_ && meta_.packed();
    for (std::size_t axis = 0; axis < 3; ++axis) {
        isNormalFinite_[axis] = meta_.normal().finite(axis);
        isScaleFinite_[axis] = meta_.scaleRange().finite(axis);
        isHeadRanged_ = isHeadRanged_ && isNormalFinite_[axis] && isScaleFinite_[axis];
        headStep_[normalLane + axis] = back_.normalStep(axis);
        headStep_[colourLane + axis] = Dequantiser::colourStep();
        headStep_[scaleLane + axis] = back_.scaleStep(axis);
        isCoefficientFinite_[axis] = meta_.coefficients().finite(axis);
        areCoefficientsRanged_ = areCoefficientsRanged_ && isCoefficientFinite_[axis];
        coefficientSlack_[axis] = allowedFor(back_.coefficientStep(axis)) + least;
    }
    headStep_[opacityLane] = opacityStepOf(1);
    headStep_[noOpacityLane] = opacityStepOf(0);
    for (std::size_t i = 0; i < 4; ++i) {
        headStep_[rotationLane + i] = Dequantiser::rotationStep();
    }
    for (std::size_t lane = 0; lane < laneCount; ++lane) {
        headSlack_[lane] = allowedFor(headStep_[lane]) + least;
    }
}

void Comparer::compare(const std::byte* source, std::uint64_t number,
                       const SplatReader::RecordCursor::View& stored) {
    number_ = number;
    at_ = stored.index * Format::recordSize;
    file_ = Format::dataFile;
    if (std::memcmp(source, stored.data, 3 * sizeof(float)) != 0) {
        // This is another splat or a broken one, so its other values are not compared.
        findings_.error(
            "against-position", file_, at_,
            fmt::format("position {}, as splat {} of the source has it", positionText(source), number_),
            positionText(stored.data));
        return;
    }
    std::array<float, GaussionSplat::layoutWithCoefficients.floats> values; // filled as far as it is read
    std::memcpy(values.data(), source, layout_.floats * sizeof(float));
    const SplatReader::Record record = SplatReader::loadRecord(stored.data);
    if (!agreeHead(values.data(), record)) {
        checkHead(values.data(), record);
    }
    if (hasCoefficients_ &&
        !(areCoefficientsRanged_ && agreeCoefficients(values.data() + 9, stored.coefficients))) {
        checkCoefficients(values.data() + 9, stored);
    }
}

std::vector<AttributeError> Comparer::errors() const {
    std::vector<AttributeError> errors(errors_.begin(), errors_.end());
    for (std::size_t axis = 0; axis < 3; ++axis) {
        addLane(errors[normal], headErrors_, normalLane + axis, headStep_[normalLane + axis]);
        addLane(errors[colour], headErrors_, colourLane + axis, headStep_[colourLane + axis]);
        addLane(errors[scale], headErrors_, scaleLane + axis, headStep_[scaleLane + axis]);
        for (std::size_t k = 0; k < Format::coefficientsPerChannel; ++k) {
            addLane(errors[coefficients], coefficientErrors_[axis], k, back_.coefficientStep(axis));
        }
    }
    addLane(errors[opacity], headErrors_, opacityLane, headStep_[opacityLane]);
    addLane(errors[opacity], headErrors_, noOpacityLane, headStep_[noOpacityLane]);
    for (std::size_t i = 0; i < 4; ++i) {
        addLane(errors[rotation], headErrors_, rotationLane + i, headStep_[rotationLane + i]);
    }
    for (const Attribute attribute : {normal, colour, scale, rotation}) { // a rotation keeps three parts
        errors[attribute].values += 3 * agreeingHeads_;
    }
    errors[opacity].values += agreeingHeads_;
    errors[coefficients].values += agreeingCoefficients_ * coefficientCount;
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

// True if all attributes but position and coefficients agree; then their errors are counted. One loop without
// branches, since nearly every splat agrees. Without agreeHead and agreeCoefficients a comparison takes twice
// as long (verify --quick --against, 3,000,000 splats: 1.4 s with them, 2.9 s without). False, with nothing
// counted, if a value is not finite or differs: checkHead then finds the difference.
bool Comparer::agreeHead(const float* source, const SplatReader::Record& record) {
    const float* tail = source + layout_.scale;
    const std::array<float, 4> q = {tail[4], tail[5], tail[6], tail[3]};
    const double length = lengthOf(q);
    if (!isHeadRanged_ || !isLengthKept(length)) {
        return false;
    }
    Lanes expected{};
    Lanes found{};
    for (std::size_t axis = 0; axis < 3; ++axis) {
        expected[normalLane + axis] = source[3 + axis];
        found[normalLane + axis] = back_.normal(axis, record.normal[axis]);
        expected[colourLane + axis] = storedColour(source[6 + axis]);
        found[colourLane + axis] = back_.colour(axis, record.colour[axis]);
        expected[scaleLane + axis] = std::exp(double{tail[axis]});
        found[scaleLane + axis] = back_.scale(axis, record.scale[axis]);
    }
    const std::size_t itsLane = record.opacity == 0 ? noOpacityLane : opacityLane;
    expected[itsLane] = opacityOf(tail[-1]);
    found[itsLane] = back_.opacity(record.opacity);
    const std::size_t dropped = SplatReader::unpackRotationWord(record.rotation).largest;
    const std::array<double, 4> back = SplatReader::unpackRotation(record.rotation);
    const double sign = q[dropped] >= 0.0f ? 1.0 : -1.0;
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
        const double allowed = headSlack_[lane] + std::fabs(expected[lane]) * relativeSlack;
        differing[lane] = distances[lane] < allowed ? 0.0 : 1.0;
    }
    if (!isLargest || std::accumulate(differing.begin(), differing.end(), 0.0) != 0.0) {
        return false;
    }
    ++agreeingHeads_;
    headErrors_.add(distances);
    return true;
}

void Comparer::checkHead(const float* source, const SplatReader::Record& record) {
    const SplatReader::Splat splat = back_.splat(record);
    const float* tail = source + layout_.scale;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        checkRanged(normal, isNormalFinite_[axis], source[3 + axis], splat.normal[axis],
                    back_.normalStep(axis), record.normal[axis]);
        check(colour, storedColour(source[6 + axis]), splat.colour[axis], Dequantiser::colourStep(),
              record.colour[axis]);
        checkRanged(scale, isScaleFinite_[axis], std::exp(double{tail[axis]}), splat.scale[axis],
                    back_.scaleStep(axis), record.scale[axis]);
    }
    check(opacity, opacityOf(tail[-1]), splat.opacity, opacityStepOf(record.opacity), record.opacity);
    checkRotation({tail[4], tail[5], tail[6], tail[3]}, record.rotation, splat);
}

void Comparer::difference(Attribute attribute, const std::string& expected, const std::string& found) {
    findings_.error(
        "against-value", file_, at_,
        fmt::format("{} {}, as splat {} of the source has it", names[attribute], expected, number_), found);
}

// `step` 0 means that the value is stored exactly.
void Comparer::check(Attribute attribute, double expected, double found, double step,
                     std::uint32_t quantised) {
    AttributeError& error = errors_[attribute];
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

// An attribute with an infinite range stores no values.
void Comparer::checkRanged(Attribute attribute, bool isRangeFinite, double expected, double found,
                           double step, std::uint32_t quantised) {
    if (isRangeFinite || !std::isfinite(expected)) {
        check(attribute, expected, found, step, quantised);
    } else {
        ++errors_[attribute].skipped;
    }
}

// `q` is in the order of the packing: x, y, z, w.
void Comparer::checkRotation(const std::array<float, 4>& q, std::uint32_t word,
                             const SplatReader::Splat& splat) {
    const double length = lengthOf(q);
    if (!isLengthKept(length)) {
        ++errors_[rotation].skipped;
        return;
    }
    const std::size_t dropped = SplatReader::unpackRotationWord(word).largest;
    const double sign = q[dropped] >= 0.0f ? 1.0 : -1.0;
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

// The same as agreeHead for the coefficients. A channel has 15 values; the sixteenth lane holds whatever
// follows it in source and record, and is ignored.
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
        const double slack = coefficientSlack_[channel];
        for (std::size_t k = 0; k < laneCount; ++k) {
            const double expected = source[channel * perChannel + k];
            const double distance = std::fabs(back_.coefficient(channel, quantised[channel][k]) - expected);
            distances[channel][k] = distance;
            differing[k] += distance < slack + std::fabs(expected) * relativeSlack ? 0.0 : 1.0;
        }
    }
    if (std::accumulate(differing.begin(), differing.begin() + perChannel, 0.0) != 0.0) {
        return false;
    }
    ++agreeingCoefficients_;
    for (std::size_t channel = 0; channel < 3; ++channel) {
        coefficientErrors_[channel].add(distances[channel]);
    }
    return true;
}

void Comparer::checkCoefficients(const float* source, const SplatReader::RecordCursor::View& stored) {
    SplatReader::Splat splat;
    back_.coefficients(stored.coefficients, splat);
    const std::uint64_t size = meta_.packed() ? Format::packedCoefficientSize : Format::rawCoefficientSize;
    file_ = Format::coefficientFile;
    for (std::size_t i = 0; i < splat.coefficients.size(); ++i) {
        const std::size_t channel = i / Format::coefficientsPerChannel;
        const std::size_t k = i % Format::coefficientsPerChannel;
        at_ = stored.index * size + (meta_.packed() ? 4 * k : 4 * (3 * k + channel));
        if (!meta_.packed()) {
            check(coefficients, source[i], splat.coefficients[i], 0.0, 0);
            continue;
        }
        const auto word = SplatReader::unpackCoefficientWord(
            SplatReader::loadUnsigned<std::uint32_t>(stored.coefficients + 4 * k));
        checkRanged(coefficients, isCoefficientFinite_[channel], source[i], splat.coefficients[i],
                    back_.coefficientStep(channel), word.channel[channel]);
    }
}

} // namespace Tavrin::SplatProgram
