// Decoding splats in place, and the ranges of a decoded block. Single precision throughout.
//
// decodeRecord is the plain form of the work, one record at a time; decodeRecords does the same to many in
// columns.
#pragma once

#include "src/kernels.h"
#include "src/records.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>

namespace Tavrin::GaussionSplat {

// The linear scale of a logarithmic one. The root-then-square sequence is intended.
float decodeScale(float logScale);

// The colour of a zeroth-order coefficient, clamped to [0, 1]; NaN passes through.
float decodeColour(float coefficient);

// The opacity of a logit.
float decodeOpacity(float logit);

// Largest-component packing of a quaternion stored as rot_0 (w), rot_1 (x), rot_2 (y), rot_3 (z): it is
// normalised, the largest component is dropped and its index m in (x, y, z, w) handed on as m / 3, and the
// other three, with the sign of the dropped one folded in, are mapped from [-1/sqrt(2), 1/sqrt(2)] to [0, 1].
// A zero quaternion gives NaN.
std::array<float, 4> packRotation(float rot0, float rot1, float rot2, float rot3);

// Bounds of one value over a block. Strict comparisons in visiting order: NaN never replaces a bound, and of
// a positive and a negative zero the first stays.
struct ValueRange {
    float min = std::numeric_limits<float>::infinity();
    float max = -std::numeric_limits<float>::infinity();

    void fold(float value) {
        min = min > value ? value : min;
        max = value > max ? value : max;
    }
};

// The ranges of one block, kept in single precision: the minimum and maximum of floats do not change by
// widening.
struct BlockRanges {
    ValueRange position[3];
    ValueRange normal[3];
    ValueRange colour[3];
    ValueRange shcoef[3]; // red, green, blue
    ValueRange opacity;
    ValueRange scale[3];
};

// Decode one record in place and widen ranges by it.
void decodeRecord(float* record, bool hasShcoef, BlockRanges& ranges);

// Decode count records in place, each as decodeRecord does, and widen ranges by them. The bounds are those of
// decodeRecord but for the sign of a zero, which settleZeroBounds puts right once the whole block is there.
void decodeRecords(float* records, std::uint64_t count, bool hasShcoef, BlockRanges& ranges,
                   Kernels kernels = chosenKernels);

// The same without ranges.
void decodeRecords(float* records, std::uint64_t count, bool hasShcoef, Kernels kernels = chosenKernels);

// Widen ranges by those of other records of the same block.
void joinRanges(BlockRanges& ranges, const BlockRanges& other);

// Give a zero bound of a copied attribute (position, normal, coefficients) the sign of the first zero in the
// block, as visiting the records one by one would. Decoded attributes have no negative zeros.
void settleZeroBounds(const float* records, std::uint64_t count, bool hasShcoef, BlockRanges& ranges);

// Merge the ranges of a block into the shared ones: opacity's x alone, and the coefficients' only where there
// are any; without, every block sets them to [0, 1].
void mergeRanges(AttributeBounding& bounding, const BlockRanges& ranges, bool hasShcoef);

} // namespace Tavrin::GaussionSplat
