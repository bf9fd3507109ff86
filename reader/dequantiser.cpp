#include "reader/dequantiser.h"

#include <algorithm>
#include <cmath>

namespace Tavrin::SplatReader {
namespace {

// For each largest component, the positions of the other three in (rot_1, rot_2, rot_3, rot_0), that is (x,
// y, z, w).
constexpr std::array<std::array<std::size_t, 3>, 4> otherPlaces = {
    {{1, 2, 3}, {0, 2, 3}, {0, 1, 3}, {0, 1, 2}}};

// Packing order (x, y, z, w) to the order of a Splat (w, x, y, z).
constexpr std::size_t splatPlace(std::size_t packing) {
    return (packing + 1) % 4;
}

} // namespace

double intervalMiddle(std::uint32_t quantised, std::uint32_t maximum, double factor) {
    const double q = std::min(quantised, maximum);
    return quantised >= maximum ? (q / factor + 1.0) / 2.0 : (q + 0.5) / factor;
}

std::array<double, 4> unpackRotation(std::uint32_t word) {
    if (!rotationPossible(word)) {
        return {1.0, 0.0, 0.0, 0.0};
    }
    const RotationWord parts = unpackRotationWord(word);
    std::array<double, 4> rotation{};
    double squares = 0.0;
    for (std::size_t i = 0; i < 3; ++i) {
        const double stored =
            intervalMiddle(parts.component[i], Format::rotationMaximum, Format::rotationFactor);
        const double component = (stored - 0.5) / Format::rotationGain;
        rotation[splatPlace(otherPlaces[parts.largest][i])] = component;
        squares += component * component;
    }
    rotation[splatPlace(parts.largest)] = std::sqrt(std::max(0.0, 1.0 - squares));
    // Above 1 only if the middles of the intervals are too large.
    const double length = std::sqrt(std::max(1.0, squares));
    for (double& component : rotation) {
        component /= length;
    }
    return rotation;
}

namespace {

// For each stored component: the square of the smallest magnitude in its interval.
std::array<double, Format::rotationMaximum + 1> makeNearestSquares() {
    std::array<double, Format::rotationMaximum + 1> squares{};
    for (std::size_t stored = 0; stored < squares.size(); ++stored) {
        const double low = static_cast<double>(stored) / Format::rotationFactor - 0.5;
        const double high = std::min(static_cast<double>(stored + 1) / Format::rotationFactor, 1.0) - 0.5;
        const double nearest = (low <= 0.0 && high >= 0.0 ? 0.0 : std::min(std::fabs(low), std::fabs(high))) /
                               Format::rotationGain;
        squares[stored] = nearest * nearest;
    }
    return squares;
}

} // namespace

bool rotationPossible(std::uint32_t word) {
    static const std::array<double, Format::rotationMaximum + 1> nearestSquares = makeNearestSquares();
    const RotationWord parts = unpackRotationWord(word);
    double squares = 0.0;
    double greatest = 0.0;
    for (const std::uint32_t stored : parts.component) {
        squares += nearestSquares[stored];
        greatest = std::max(greatest, nearestSquares[stored]);
    }
    constexpr double singlePrecisionSlack = 1e-5;
    return squares + greatest <= 1.0 + singlePrecisionSlack;
}

Dequantiser::Dequantiser(const Meta& meta) : packed_(meta.packed()) {
    constexpr std::array<std::uint32_t, 3> maxima = {Format::redBlueMaximum, Format::greenMaximum,
                                                     Format::redBlueMaximum};
    constexpr std::array<double, 3> factors = {Format::redBlueFactor, Format::greenFactor,
                                               Format::redBlueFactor};
    for (std::size_t axis = 0; axis < 3; ++axis) {
        normal_[axis] = makeAxis(meta.normal(), axis, Format::wordMaximum, Format::wordFactor);
        scale_[axis] = makeAxis(meta.scaleRange(), axis, Format::wordMaximum, Format::wordFactor);
        coefficient_[axis] = makeAxis(meta.coefficients(), axis, maxima[axis], factors[axis]);
        colour_[axis] = makeBytes(meta.colour(), axis, false);
    }
    opacity_ = makeBytes(meta.opacity(), 0, true);
}

Dequantiser::Axis Dequantiser::makeAxis(const Range& range, std::size_t axis, std::uint32_t maximum,
                                        double factor) {
    const double min = range.min[axis];
    const double max = range.max[axis];
    Axis result;
    result.maximum = maximum;
    if (!range.finite(axis) || min == max) {
        result.min = result.last = std::isfinite(min) ? min : std::isfinite(max) ? max : 0.0;
        return result;
    }
    result.min = min;
    result.step = (max - min) / factor;
    result.last = min + intervalMiddle(maximum, maximum, factor) * (max - min);
    return result;
}

// The interval of byte b is [b, b + 1) / 255, clamped to the stated range if the two overlap.
std::array<double, 256> Dequantiser::makeBytes(const Range& range, std::size_t axis, bool keepZero) {
    std::array<double, 256> values{};
    for (std::size_t b = 0; b < values.size(); ++b) {
        double low = static_cast<double>(b) / Format::byteFactor;
        double high = b == Format::byteMaximum ? 1.0 : static_cast<double>(b + 1) / Format::byteFactor;
        if (range.finite(axis) && range.min[axis] <= high && range.max[axis] >= low) {
            low = std::max(low, range.min[axis]);
            high = std::min(high, range.max[axis]);
        }
        values[b] = (low + high) / 2.0;
    }
    values[Format::byteMaximum] = 1.0;
    if (keepZero && !(range.min[axis] > 0.0)) {
        values[0] = 0.0;
    }
    return values;
}

Splat Dequantiser::splat(const Record& record) const {
    Splat splat;
    splat.position = record.position;
    splat.opacity = opacity(record.opacity);
    splat.rotation = unpackRotation(record.rotation);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        splat.colour[axis] = colour(axis, record.colour[axis]);
        splat.scale[axis] = scale(axis, record.scale[axis]);
        splat.normal[axis] = normal(axis, record.normal[axis]);
    }
    return splat;
}

Point Dequantiser::coefficient(const std::byte* at, std::size_t k) const {
    const CoefficientWord word = unpackCoefficientWord(loadUnsigned<std::uint32_t>(at + 4 * k));
    Point values{};
    for (std::size_t channel = 0; channel < 3; ++channel) {
        values[channel] = packed_ ? coefficient(channel, word.channel[channel])
                                  : static_cast<double>(loadFloat(at + 4 * (3 * k + channel)));
    }
    return values;
}

void Dequantiser::coefficients(const std::byte* at, Splat& splat) const {
    for (std::size_t k = 0; k < Format::coefficientsPerChannel; ++k) {
        const Point values = coefficient(at, k);
        for (std::size_t channel = 0; channel < 3; ++channel) {
            splat.coefficients[channel * Format::coefficientsPerChannel + k] = values[channel];
        }
    }
}

} // namespace Tavrin::SplatReader
