#include "src/indexer_quantise.h"

#include "src/conversions.h"

#include <cstring>

namespace Tavrin::GaussionSplat {

namespace {

QuantiseRange rangeOf(double min, double max) {
    return {.min = min, .extent = max - min};
}

// A value's place in its range: 0 at the minimum, 1 at the maximum. It is not clamped. A range of zero extent
// divides by zero.
double normalised(float value, const QuantiseRange& range) {
    return (static_cast<double>(value) - range.min) / range.extent;
}

// The low bits of the truncated product. The product is in single precision.
std::uint32_t scaledBits(float value, float factor, std::uint32_t mask) {
    return static_cast<std::uint32_t>(truncateToBits(value * factor)) & mask;
}

void setRanges(QuantiseRange (&ranges)[3], const AttributeRange& attribute) {
    ranges[0] = rangeOf(attribute.min.x, attribute.max.x);
    ranges[1] = rangeOf(attribute.min.y, attribute.max.y);
    ranges[2] = rangeOf(attribute.min.z, attribute.max.z);
}

void interleaveCoefficients(const float* coefficients, float (&raw)[48]) {
    for (std::size_t k = 0; k < coefficientsPerChannel; ++k) {
        for (std::size_t channel = 0; channel < 3; ++channel) {
            raw[3 * k + channel] = coefficients[channel * coefficientsPerChannel + k];
        }
    }
    raw[45] = raw[46] = raw[47] = 0.0f;
}

} // namespace

QuantiseSettings quantiseSettings(const AttributeBounding& bounding, bool compressed) {
    QuantiseSettings settings{.hasCoefficients = bounding.hasShcoef,
                              .compressed = compressed,
                              .scale = {},
                              .normal = {},
                              .coefficients = {}};
    setRanges(settings.scale, bounding.scale);
    setRanges(settings.normal, bounding.normal);
    setRanges(settings.coefficients, bounding.shcoef);
    return settings;
}

std::uint8_t quantiseColour(float value) {
    return static_cast<std::uint8_t>(scaledBits(value, 255.0f, 0xFF));
}

std::uint16_t quantise16(float value, const QuantiseRange& range) {
    return static_cast<std::uint16_t>(truncateToBits(normalised(value, range) * 65535.5));
}

std::uint32_t packRotationWord(const float* rotation) {
    constexpr std::uint32_t unmasked = 0xFFFFFFFF;
    return scaledBits(rotation[0], 1023.5f, unmasked) | scaledBits(rotation[1], 1023.5f, unmasked) << 10 |
           scaledBits(rotation[2], 1023.5f, unmasked) << 20 | scaledBits(rotation[3], 3.5f, unmasked) << 30;
}

std::uint32_t packCoefficientWord(float red, float green, float blue, const QuantiseRange (&ranges)[3]) {
    const auto nR = static_cast<float>(normalised(red, ranges[0]));
    const auto nG = static_cast<float>(normalised(green, ranges[1]));
    const auto nB = static_cast<float>(normalised(blue, ranges[2]));
    return scaledBits(nB, 2047.5f, 0x7FF) << 21 | scaledBits(nG, 1023.5f, 0x3FF) << 11 |
           scaledBits(nR, 2047.5f, 0x7FF);
}

void quantiseSplat(const float* splat, const QuantiseSettings& settings, SplatsData& record) {
    const RecordLayout& layout = recordLayout(settings.hasCoefficients);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        record.position[axis] = splat[positionAt + axis];
        record.colour[axis] = quantiseColour(splat[colourAt + axis]);
        record.scale[axis] = quantise16(splat[layout.scale + axis], settings.scale[axis]);
        record.normal[axis] = quantise16(splat[normalAt + axis], settings.normal[axis]);
    }
    record.colour[3] = quantiseColour(splat[layout.opacity]);
    const std::uint32_t rotation = packRotationWord(splat + layout.rotation);
    std::memcpy(record.rotation, &rotation, sizeof rotation);
    if (!settings.hasCoefficients) {
        return;
    }
    const float* const coefficients = splat + coefficientsAt;
    if (!settings.compressed) {
        interleaveCoefficients(coefficients, record.raw);
        return;
    }
    for (std::size_t k = 0; k < coefficientsPerChannel; ++k) {
        record.packed[k] =
            packCoefficientWord(coefficients[k], coefficients[coefficientsPerChannel + k],
                                coefficients[2 * coefficientsPerChannel + k], settings.coefficients);
    }
    record.packed[coefficientsPerChannel] = 0;
}

} // namespace Tavrin::GaussionSplat
