// Decodes splats in place and finds the ranges of a decoded block. Single precision throughout.
//
// decodeRecord is the plain form: one record at a time. decodeRecords decodes many records in columns and
// gives the same bytes.
#pragma once

#include "src/kernels.h"
#include "src/records.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace Tavrin::GaussionSplat {

// The linear scale of a logarithmic one: the eighth root of its exponential, squared three times. This
// sequence is deliberate.
float decodeScale(float logScale);

// The colour of a zeroth-order coefficient, clamped to [0, 1]; NaN passes through.
float decodeColour(float coefficient);

// The opacity of a logit.
float decodeOpacity(float logit);

// Packs a quaternion stored as rot_0 (w), rot_1 (x), rot_2 (y), rot_3 (z) by its largest component. The
// quaternion is normalised and the component with the largest magnitude is dropped. The other three are
// multiplied by the sign of the dropped one and mapped from [-1/sqrt(2), 1/sqrt(2)] to [0, 1]. The last value
// is m / 3, with m the index of the dropped component in (x, y, z, w). A zero quaternion gives NaN.
std::array<float, 4> packRotation(float rot0, float rot1, float rot2, float rot3);

// Bounds of one value over a block. Comparisons are strict and follow the order of the records: NaN never
// replaces a bound, and of a positive and a negative zero the first stays.
struct ValueRange {
    float min = std::numeric_limits<float>::infinity();
    float max = -std::numeric_limits<float>::infinity();

    void widen(float value) {
        min = min > value ? value : min;
        max = value > max ? value : max;
    }
};

// The ranges of one block, in single precision. Widening floats to doubles would not change their minimum and
// maximum.
struct BlockRanges {
    ValueRange position[3];
    ValueRange normal[3];
    ValueRange colour[3];
    ValueRange coefficients[3]; // red, green, blue
    ValueRange opacity;
    ValueRange scale[3];
};

// Decode one record in place and widen ranges by it.
void decodeRecord(float* record, bool hasCoefficients, BlockRanges& ranges);

// Decode count records in place and widen ranges by them. The bytes are those of decodeRecord. So are the
// bounds, except for the sign of a zero; settleZeroBounds corrects it once the whole block is decoded.
void decodeRecords(float* records, std::uint64_t count, bool hasCoefficients, BlockRanges& ranges,
                   Kernels kernels = chosenKernels);

// The same without ranges.
void decodeRecords(float* records, std::uint64_t count, bool hasCoefficients,
                   Kernels kernels = chosenKernels);

// Widen ranges by those of other records of the same block.
void widen(BlockRanges& ranges, const BlockRanges& other);

// Give a zero bound of a copied attribute (position, normal, coefficients) the sign of the first zero in the
// block. Visiting the records one by one would give the same sign. Decoded attributes have no negative zeros.
void settleZeroBounds(const float* records, std::uint64_t count, bool hasCoefficients, BlockRanges& ranges);

// Widen the shared ranges by those of a block. Opacity uses x alone. A block without coefficients sets their
// range to [0, 1].
void widen(AttributeBounding& bounding, const BlockRanges& ranges, bool hasCoefficients);

} // namespace Tavrin::GaussionSplat
