#include "src/chunker_decode.h"

#include <cmath>

namespace Tavrin::GaussionSplat {

float exponential(float x) {
    return static_cast<float>(std::exp(static_cast<double>(x)));
}

float eighthRoot(float x) {
    return static_cast<float>(std::sqrt(std::sqrt(std::sqrt(std::abs(static_cast<double>(x))))));
}

float decodeScale(float logScale) {
    const float root = eighthRoot(exponential(logScale));
    const float square = root * root;
    const float fourth = square * square;
    return fourth * fourth;
}

float decodeColour(float coefficient) {
    constexpr float zerothOrder = 0.2820948f; // 1 / (2 sqrt(pi))
    float value = coefficient * zerothOrder + 0.5f;
    value = value < 0.0f ? 0.0f : value;
    return value > 1.0f ? 1.0f : value;
}

float decodeOpacity(float logit) {
    return 1.0f / (exponential(-logit) + 1.0f);
}

std::array<float, 4> packRotation(float rot0, float rot1, float rot2, float rot3) {
    float q[4] = {rot1, rot2, rot3, rot0};
    const float norm = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    const float inverse = 1.0f / norm;
    for (float& component : q) {
        component *= inverse;
    }
    std::size_t largest = 0;
    for (std::size_t i = 1; i < 4; ++i) {
        if (std::abs(q[i]) > std::abs(q[largest])) {
            largest = i;
        }
    }
    const float sign = q[largest] >= 0.0f ? 1.0f : -1.0f;
    std::array<float, 4> packed{};
    for (std::size_t i = 0, out = 0; i < 4; ++i) {
        if (i != largest) {
            packed[out++] = sign * q[i] * 1.4142135f * 0.5f + 0.5f;
        }
    }
    packed[3] = static_cast<float>(largest) / 3.0f;
    return packed;
}

namespace {

void foldThree(ValueRange (&ranges)[3], const float* values) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        ranges[axis].fold(values[axis]);
    }
}

void decodeRecord(float* record, const RecordLayout& layout, bool hasShcoef, BlockRanges& ranges) {
    float* const rotation = record + layout.rotation;
    const std::array<float, 4> packed = packRotation(rotation[0], rotation[1], rotation[2], rotation[3]);
    for (std::size_t i = 0; i < 4; ++i) {
        rotation[i] = packed[i];
    }
    float* const scale = record + layout.scale;
    float* const colour = record + colourAt;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        scale[axis] = decodeScale(scale[axis]);
        colour[axis] = decodeColour(colour[axis]);
    }
    float& opacity = record[layout.opacity];
    opacity = decodeOpacity(opacity);

    foldThree(ranges.position, record + positionAt);
    foldThree(ranges.normal, record + normalAt);
    foldThree(ranges.colour, colour);
    ranges.opacity.fold(opacity);
    foldThree(ranges.scale, scale);
    for (std::size_t i = 0; hasShcoef && i < 3 * shcoefPerChannel; ++i) {
        ranges.shcoef[i / shcoefPerChannel].fold(record[shcoefAt + i]);
    }
}

AttributeRange widened(const ValueRange (&ranges)[3]) {
    return {.name = {},
            .min = {ranges[0].min, ranges[1].min, ranges[2].min},
            .max = {ranges[0].max, ranges[1].max, ranges[2].max}};
}

} // namespace

void decodeRecords(float* records, std::uint64_t count, bool hasShcoef, BlockRanges& ranges) {
    const RecordLayout& layout = recordLayout(hasShcoef);
    for (std::uint64_t i = 0; i < count; ++i) {
        decodeRecord(records + i * layout.floats, layout, hasShcoef, ranges);
    }
}

void mergeRanges(AttributeBounding& bounding, const BlockRanges& ranges, bool hasShcoef) {
    widen(bounding.position, widened(ranges.position));
    widen(bounding.normal, widened(ranges.normal));
    widen(bounding.color, widened(ranges.colour));
    widenX(bounding.opacity,
           {.name = {}, .min = {ranges.opacity.min, 0.0, 0.0}, .max = {ranges.opacity.max, 0.0, 0.0}});
    widen(bounding.scale, widened(ranges.scale));
    if (hasShcoef) {
        widen(bounding.shcoef, widened(ranges.shcoef));
    } else {
        bounding.shcoef.min = {0.0, 0.0, 0.0};
        bounding.shcoef.max = {1.0, 1.0, 1.0};
    }
}

} // namespace Tavrin::GaussionSplat
