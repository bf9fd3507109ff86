#include "src/chunker_decode.h"

#include "src/chunker_elementary.h"
#include "src/lanes.h"

#include <algorithm>
#include <cmath>

#if PLYCONVERT_SSE2
#include <emmintrin.h>
#endif

namespace Tavrin::GaussionSplat {

namespace {

inline float scaleOf(float logScale) {
    const float root = eighthRoot(exponential(logScale));
    const float square = root * root;
    const float fourth = square * square;
    return fourth * fourth;
}

inline float colourOf(float coefficient) {
    constexpr float zerothOrder = 0.2820948f; // 1 / (2 sqrt(pi))
    float value = coefficient * zerothOrder + 0.5f;
    value = value < 0.0f ? 0.0f : value;
    return value > 1.0f ? 1.0f : value;
}

inline float opacityOf(float logit) {
    return 1.0f / (exponential(-logit) + 1.0f);
}

// packRotation without branches or indexing, so that loops over it vectorise. The index of the largest
// component selects the three that stay.
inline void packRotationInPlace(float& rot0, float& rot1, float& rot2, float& rot3) {
    float q0 = rot1;
    float q1 = rot2;
    float q2 = rot3;
    float q3 = rot0;
    const float norm = std::sqrt(q0 * q0 + q1 * q1 + q2 * q2 + q3 * q3);
    const float inverse = 1.0f / norm;
    q0 *= inverse;
    q1 *= inverse;
    q2 *= inverse;
    q3 *= inverse;
    float index = 0.0f;
    float largest = q0;
    index = std::abs(q1) > std::abs(largest) ? 1.0f : index;
    largest = std::abs(q1) > std::abs(largest) ? q1 : largest;
    index = std::abs(q2) > std::abs(largest) ? 2.0f : index;
    largest = std::abs(q2) > std::abs(largest) ? q2 : largest;
    index = std::abs(q3) > std::abs(largest) ? 3.0f : index;
    largest = std::abs(q3) > std::abs(largest) ? q3 : largest;
    const float sign = largest >= 0.0f ? 1.0f : -1.0f;
    const float first = index < 0.5f ? q1 : q0;
    const float second = index < 1.5f ? q2 : q1;
    const float third = index < 2.5f ? q3 : q2;
    rot0 = sign * first * 1.4142135f * 0.5f + 0.5f;
    rot1 = sign * second * 1.4142135f * 0.5f + 0.5f;
    rot2 = sign * third * 1.4142135f * 0.5f + 0.5f;
    rot3 = index / 3.0f;
}

} // namespace

float decodeScale(float logScale) {
    return scaleOf(logScale);
}

float decodeColour(float coefficient) {
    return colourOf(coefficient);
}

float decodeOpacity(float logit) {
    return opacityOf(logit);
}

std::array<float, 4> packRotation(float rot0, float rot1, float rot2, float rot3) {
    packRotationInPlace(rot0, rot1, rot2, rot3);
    return {rot0, rot1, rot2, rot3};
}

namespace {

void widenThree(ValueRange (&ranges)[3], const float* values) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        ranges[axis].widen(values[axis]);
    }
}

} // namespace

void decodeRecord(float* record, bool hasCoefficients, BlockRanges& ranges) {
    const RecordLayout& layout = recordLayout(hasCoefficients);
    float* const rotation = record + layout.rotation;
    packRotationInPlace(rotation[0], rotation[1], rotation[2], rotation[3]);
    float* const scale = record + layout.scale;
    float* const colour = record + colourAt;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        scale[axis] = scaleOf(scale[axis]);
        colour[axis] = colourOf(colour[axis]);
    }
    float& opacity = record[layout.opacity];
    opacity = opacityOf(opacity);

    widenThree(ranges.position, record + positionAt);
    widenThree(ranges.normal, record + normalAt);
    widenThree(ranges.colour, colour);
    ranges.opacity.widen(opacity);
    widenThree(ranges.scale, scale);
    for (std::size_t i = 0; hasCoefficients && i < coefficientFloats; ++i) {
        ranges.coefficients[i / coefficientsPerChannel].widen(record[coefficientsAt + i]);
    }
}

namespace {

constexpr std::size_t tileRecords = 128; // the columns of a tile take 6 KB

// The transformed attributes of a tile of records, in columns.
struct Tile {
    alignas(64) float colour[3][tileRecords];
    alignas(64) float opacity[tileRecords];
    alignas(64) float scale[3][tileRecords];
    alignas(64) float rotation[4][tileRecords];
    alignas(64) float behindColour[tileRecords]; // the first coefficient, or the opacity, as it was read
};

static_assert(layoutWithCoefficients.scale == layoutWithCoefficients.opacity + 1 &&
              layoutWithoutCoefficients.scale == layoutWithoutCoefficients.opacity + 1);

// Four records at a time are taken apart into columns and put together again, where the build has vectors of
// four floats. This works because opacity and scale are adjacent in both layouts, and so are the four parts
// of the rotation.
#if PLYCONVERT_SSE2

constexpr std::size_t recordsAtOnce = 4;

// Four values of each of four records go into four columns. The records are stride floats apart.
inline void takeApart(const float* records, std::size_t stride, float* a, float* b, float* c, float* d) {
    __m128 first = _mm_loadu_ps(records);
    __m128 second = _mm_loadu_ps(records + stride);
    __m128 third = _mm_loadu_ps(records + 2 * stride);
    __m128 fourth = _mm_loadu_ps(records + 3 * stride);
    _MM_TRANSPOSE4_PS(first, second, third, fourth);
    _mm_store_ps(a, first);
    _mm_store_ps(b, second);
    _mm_store_ps(c, third);
    _mm_store_ps(d, fourth);
}

inline void putTogether(const float* a, const float* b, const float* c, const float* d, float* records,
                        std::size_t stride) {
    __m128 first = _mm_load_ps(a);
    __m128 second = _mm_load_ps(b);
    __m128 third = _mm_load_ps(c);
    __m128 fourth = _mm_load_ps(d);
    _MM_TRANSPOSE4_PS(first, second, third, fourth);
    _mm_storeu_ps(records, first);
    _mm_storeu_ps(records + stride, second);
    _mm_storeu_ps(records + 2 * stride, third);
    _mm_storeu_ps(records + 3 * stride, fourth);
}

// The value after the colours is stored back unchanged.
inline void loadFour(const float* records, const RecordLayout& layout, Tile& tile, std::size_t i) {
    takeApart(records + colourAt, layout.floats, tile.colour[0] + i, tile.colour[1] + i, tile.colour[2] + i,
              tile.behindColour + i);
    takeApart(records + layout.opacity, layout.floats, tile.opacity + i, tile.scale[0] + i, tile.scale[1] + i,
              tile.scale[2] + i);
    takeApart(records + layout.rotation, layout.floats, tile.rotation[0] + i, tile.rotation[1] + i,
              tile.rotation[2] + i, tile.rotation[3] + i);
}

inline void storeFour(float* records, const RecordLayout& layout, const Tile& tile, std::size_t i) {
    putTogether(tile.colour[0] + i, tile.colour[1] + i, tile.colour[2] + i, tile.behindColour + i,
                records + colourAt, layout.floats);
    putTogether(tile.opacity + i, tile.scale[0] + i, tile.scale[1] + i, tile.scale[2] + i,
                records + layout.opacity, layout.floats);
    putTogether(tile.rotation[0] + i, tile.rotation[1] + i, tile.rotation[2] + i, tile.rotation[3] + i,
                records + layout.rotation, layout.floats);
}

#else

constexpr std::size_t recordsAtOnce = tileRecords + 1; // no tile has that many

inline void loadFour(const float*, const RecordLayout&, Tile&, std::size_t) {}
inline void storeFour(float*, const RecordLayout&, const Tile&, std::size_t) {}

#endif

inline void loadTile(const float* records, std::size_t count, const RecordLayout& layout, Tile& tile) {
    std::size_t i = 0;
    for (; i + recordsAtOnce <= count; i += recordsAtOnce, records += recordsAtOnce * layout.floats) {
        loadFour(records, layout, tile, i);
    }
    for (; i < count; ++i, records += layout.floats) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            tile.colour[axis][i] = records[colourAt + axis];
            tile.scale[axis][i] = records[layout.scale + axis];
        }
        tile.opacity[i] = records[layout.opacity];
        for (std::size_t part = 0; part < 4; ++part) {
            tile.rotation[part][i] = records[layout.rotation + part];
        }
    }
}

inline void storeTile(float* records, std::size_t count, const RecordLayout& layout, const Tile& tile) {
    std::size_t i = 0;
    for (; i + recordsAtOnce <= count; i += recordsAtOnce, records += recordsAtOnce * layout.floats) {
        storeFour(records, layout, tile, i);
    }
    for (; i < count; ++i, records += layout.floats) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            records[colourAt + axis] = tile.colour[axis][i];
            records[layout.scale + axis] = tile.scale[axis][i];
        }
        records[layout.opacity] = tile.opacity[i];
        for (std::size_t part = 0; part < 4; ++part) {
            records[layout.rotation + part] = tile.rotation[part][i];
        }
    }
}

// Straight loops over columns, each of which the compiler turns into vector code. They cover the whole tile
// even when it is not full.
void decodeTile(Tile& tile) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        for (float& value : tile.colour[axis]) {
            value = colourOf(value);
        }
        for (float& value : tile.scale[axis]) {
            value = scaleOf(value);
        }
    }
    for (float& value : tile.opacity) {
        value = opacityOf(value);
    }
    for (std::size_t i = 0; i < tileRecords; ++i) {
        packRotationInPlace(tile.rotation[0][i], tile.rotation[1][i], tile.rotation[2][i],
                            tile.rotation[3][i]);
    }
}

// Widen range by the bounds of count lanes, starting at lane first.
template <std::size_t Lanes>
void widenByLanes(const LaneRanges<Lanes>& bounds, ValueRange& range, std::size_t first, std::size_t count) {
    for (std::size_t lane = first; lane < first + count; ++lane) {
        range.min = minimum(range.min, bounds.min[lane]);
        range.max = maximum(range.max, bounds.max[lane]);
    }
}

// Bounds of a column of a tile.
void widenByColumn(const float (&column)[tileRecords], std::size_t count, ValueRange& range) {
    constexpr std::size_t lanes = 16;
    LaneRanges<lanes> bounds;
    const std::size_t whole = count - count % lanes;
    bounds.widen(column, whole / lanes, lanes);
    widenByLanes(bounds, range, 0, lanes);
    for (std::size_t i = whole; i < count; ++i) {
        range.widen(column[i]);
    }
}

void widenByTile(const Tile& tile, std::size_t count, BlockRanges& ranges) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        widenByColumn(tile.colour[axis], count, ranges.colour[axis]);
        widenByColumn(tile.scale[axis], count, ranges.scale[axis]);
    }
    widenByColumn(tile.opacity, count, ranges.opacity);
}

constexpr std::size_t copiedLanes = 6; // position and normal stand together

template <std::size_t Lanes>
void widenChannels(const LaneRanges<Lanes>& lanes, ValueRange (&ranges)[3]) {
    constexpr std::size_t each = Lanes / 3;
    for (std::size_t channel = 0; channel < 3; ++channel) {
        widenByLanes(lanes, ranges[channel], channel * each, each);
    }
}

// The body of decodeRecords without ranges for all kernels.
inline void decodeTiles(float* records, std::uint64_t count, bool hasCoefficients) {
    const RecordLayout& layout = recordLayout(hasCoefficients);
    Tile tile{};
    for (std::uint64_t done = 0; done < count; done += tileRecords) {
        const std::size_t size = static_cast<std::size_t>(std::min<std::uint64_t>(count - done, tileRecords));
        float* const first = records + done * layout.floats;
        loadTile(first, size, layout, tile);
        decodeTile(tile);
        storeTile(first, size, layout, tile);
    }
}

// The body of decodeRecords for all kernels.
inline void decodeTiles(float* records, std::uint64_t count, bool hasCoefficients, BlockRanges& ranges) {
    const RecordLayout& layout = recordLayout(hasCoefficients);
    LaneRanges<copiedLanes> copied;
    LaneRanges<coefficientFloats> coefficients;
    Tile tile{};
    for (std::uint64_t done = 0; done < count;) {
        const std::size_t size = static_cast<std::size_t>(std::min<std::uint64_t>(count - done, tileRecords));
        float* const first = records + done * layout.floats;
        loadTile(first, size, layout, tile);
        decodeTile(tile);
        widenByTile(tile, size, ranges);
        copied.widen(first, size, layout.floats);
        if (hasCoefficients) {
            coefficients.widen(first + coefficientsAt, size, layout.floats);
        }
        storeTile(first, size, layout, tile);
        done += size;
    }
    for (std::size_t axis = 0; axis < 3; ++axis) {
        widenByLanes(copied, ranges.position[axis], positionAt + axis, 1);
        widenByLanes(copied, ranges.normal[axis], normalAt + axis, 1);
    }
    widenChannels(coefficients, ranges.coefficients);
}

#if PLYCONVERT_AVX2

// The same code for AVX2. `flatten` inlines all that it calls, so no shared function is compiled for the
// wider vectors. Wider vectors hold more values and round each as narrow ones do. Without fused
// multiplication the bytes stay the same.
__attribute__((target("avx2"), flatten)) void decodeAvx2(float* records, std::uint64_t count,
                                                         bool hasCoefficients, BlockRanges& ranges) {
    decodeTiles(records, count, hasCoefficients, ranges);
}

__attribute__((target("avx2"), flatten)) void decodeAvx2(float* records, std::uint64_t count,
                                                         bool hasCoefficients) {
    decodeTiles(records, count, hasCoefficients);
}

#endif

} // namespace

void decodeRecords(float* records, std::uint64_t count, bool hasCoefficients, BlockRanges& ranges,
                   [[maybe_unused]] Kernels kernels) {
#if PLYCONVERT_AVX2
    if (kernels == Kernels::avx2) {
        decodeAvx2(records, count, hasCoefficients, ranges);
        return;
    }
#endif
    decodeTiles(records, count, hasCoefficients, ranges);
}

void decodeRecords(float* records, std::uint64_t count, bool hasCoefficients,
                   [[maybe_unused]] Kernels kernels) {
#if PLYCONVERT_AVX2
    if (kernels == Kernels::avx2) {
        decodeAvx2(records, count, hasCoefficients);
        return;
    }
#endif
    decodeTiles(records, count, hasCoefficients);
}

namespace {

void widen(ValueRange& range, const ValueRange& other) {
    range.min = minimum(range.min, other.min);
    range.max = maximum(range.max, other.max);
}

// The first zero, in visiting order, among the values at values[0 .. width) of each record; 0 when there is
// none.
float firstZero(const float* values, std::size_t width, std::uint64_t count, std::size_t stride) {
    for (std::uint64_t i = 0; i < count; ++i, values += stride) {
        for (std::size_t k = 0; k < width; ++k) {
            if (values[k] == 0.0f) {
                return values[k];
            }
        }
    }
    return 0.0f;
}

AttributeRange inDoubles(const ValueRange (&ranges)[3]) {
    return {.name = {},
            .min = {ranges[0].min, ranges[1].min, ranges[2].min},
            .max = {ranges[0].max, ranges[1].max, ranges[2].max}};
}

} // namespace

void widen(BlockRanges& ranges, const BlockRanges& other) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        widen(ranges.position[axis], other.position[axis]);
        widen(ranges.normal[axis], other.normal[axis]);
        widen(ranges.colour[axis], other.colour[axis]);
        widen(ranges.coefficients[axis], other.coefficients[axis]);
        widen(ranges.scale[axis], other.scale[axis]);
    }
    widen(ranges.opacity, other.opacity);
}

void settleZeroBounds(const float* records, std::uint64_t count, bool hasCoefficients, BlockRanges& ranges) {
    const std::size_t stride = recordLayout(hasCoefficients).floats;
    const auto settle = [&](ValueRange& range, std::size_t at, std::size_t width) {
        if (range.min != 0.0f && range.max != 0.0f) {
            return;
        }
        const float zero = firstZero(records + at, width, count, stride);
        range.min = range.min == 0.0f ? zero : range.min;
        range.max = range.max == 0.0f ? zero : range.max;
    };
    for (std::size_t axis = 0; axis < 3; ++axis) {
        settle(ranges.position[axis], positionAt + axis, 1);
        settle(ranges.normal[axis], normalAt + axis, 1);
        if (hasCoefficients) {
            settle(ranges.coefficients[axis], coefficientsAt + axis * coefficientsPerChannel,
                   coefficientsPerChannel);
        }
    }
}

void widen(AttributeBounding& bounding, const BlockRanges& ranges, bool hasCoefficients) {
    widen(bounding.position, inDoubles(ranges.position));
    widen(bounding.normal, inDoubles(ranges.normal));
    widen(bounding.color, inDoubles(ranges.colour));
    widenX(bounding.opacity,
           {.name = {}, .min = {ranges.opacity.min, 0.0, 0.0}, .max = {ranges.opacity.max, 0.0, 0.0}});
    widen(bounding.scale, inDoubles(ranges.scale));
    if (hasCoefficients) {
        widen(bounding.shcoef, inDoubles(ranges.coefficients));
    } else {
        bounding.shcoef.min = {0.0, 0.0, 0.0};
        bounding.shcoef.max = {1.0, 1.0, 1.0};
    }
}

} // namespace Tavrin::GaussionSplat
