#include "stream/raw_ranges.h"

#include "src/lanes.h"

namespace Tavrin::SplatStream {

using namespace GaussionSplat;

namespace {

// The bounds of all columns of some records.
template <std::size_t Lanes>
inline void columnRanges(const float* records, std::uint64_t count, ValueRange* columns) {
    LaneRanges<Lanes> bounds;
    bounds.widen(records, count, Lanes);
    for (std::size_t lane = 0; lane < Lanes; ++lane) {
        columns[lane] = {.min = bounds.min[lane], .max = bounds.max[lane]};
    }
}

inline void anyColumnRanges(const float* records, std::uint64_t count, bool hasCoefficients,
                            ValueRange* columns) {
    if (hasCoefficients) {
        columnRanges<layoutWithCoefficients.floats>(records, count, columns);
    } else {
        columnRanges<layoutWithoutCoefficients.floats>(records, count, columns);
    }
}

#if PLYCONVERT_AVX2

// The same code for wider vectors.
__attribute__((target("avx2"), flatten)) void columnRangesAvx2(const float* records, std::uint64_t count,
                                                               bool hasCoefficients, ValueRange* columns) {
    anyColumnRanges(records, count, hasCoefficients, columns);
}

#endif

void rangesOfWindow(const float* records, std::uint64_t count, bool hasCoefficients, ValueRange* columns,
                    [[maybe_unused]] Kernels kernels) {
#if PLYCONVERT_AVX2
    if (kernels == Kernels::avx2) {
        columnRangesAvx2(records, count, hasCoefficients, columns);
        return;
    }
#endif
    anyColumnRanges(records, count, hasCoefficients, columns);
}

// The columns of a copied attribute in a record.
struct Columns {
    std::size_t at;
    std::size_t width;
};
Columns columnsOf(std::size_t attribute) {
    if (attribute < 6) { // position and normal
        return {attribute, 1};
    }
    return {coefficientsAt + (attribute - 6) * coefficientsPerChannel, coefficientsPerChannel};
}
static_assert(positionAt == 0 && normalAt == 3);

// The range of a value decoded from one column. The decoding function is monotonic: it never falls as its
// argument rises. It gives a number for every number.
template <typename Decode>
ValueRange decodedRange(const ValueRange& raw, Decode decode) {
    if (!(raw.min <= raw.max)) {
        return {}; // no value, or NaN alone: the range stays empty
    }
    return {.min = decode(raw.min), .max = decode(raw.max)};
}

} // namespace

RawRanges::Positions RawRanges::widen(const float* records, std::uint64_t count, std::uint64_t first) {
    std::array<ValueRange, layoutWithCoefficients.floats> window;
    rangesOfWindow(records, count, hasCoefficients_, window.data(), kernels_);
    widenColumns(window);
    findZeros(records, count, first);
    return {window[positionAt], window[positionAt + 1], window[positionAt + 2]};
}

void RawRanges::widenColumns(const std::array<ValueRange, layoutWithCoefficients.floats>& others) {
    for (std::size_t i = 0; i < columns_.size(); ++i) {
        columns_[i].min = minimum(columns_[i].min, others[i].min);
        columns_[i].max = maximum(columns_[i].max, others[i].max);
    }
}

ValueRange RawRanges::copiedRange(std::size_t attribute) const {
    const Columns columns = columnsOf(attribute);
    ValueRange range;
    for (std::size_t i = columns.at; i < columns.at + columns.width; ++i) {
        range.min = minimum(range.min, columns_[i].min);
        range.max = maximum(range.max, columns_[i].max);
    }
    return range;
}

// The first zero matters only if a bound of the whole scene is zero. No value then lies beyond zero, so the
// bound of the records seen so far becomes zero with the first zero. Hence only the window in which a bound
// became zero has to be searched.
void RawRanges::findZeros(const float* records, std::uint64_t count, std::uint64_t first) {
    const std::size_t stride = recordLayout(hasCoefficients_).floats;
    for (std::size_t attribute = 0; attribute < (hasCoefficients_ ? copiedCount : 6); ++attribute) {
        FirstZero& zero = zeros_[attribute];
        if (zero.record != UINT64_MAX) {
            continue;
        }
        const ValueRange range = copiedRange(attribute);
        if (range.min != 0.0f && range.max != 0.0f) {
            continue;
        }
        const Columns columns = columnsOf(attribute);
        for (std::uint64_t i = 0; i < count * columns.width && zero.record == UINT64_MAX; ++i) {
            const float value = records[i / columns.width * stride + columns.at + i % columns.width];
            if (value == 0.0f) {
                zero = {.record = first + i / columns.width, .value = value};
            }
        }
    }
}

void RawRanges::widen(const RawRanges& other) {
    widenColumns(other.columns_);
    for (std::size_t attribute = 0; attribute < copiedCount; ++attribute) {
        if (other.zeros_[attribute].record < zeros_[attribute].record) {
            zeros_[attribute] = other.zeros_[attribute];
        }
    }
}

// Positions, normals and coefficients are copied: their ranges are the columns' own, and a bound that is zero
// has the sign of the scene's first zero, since of two equal bounds the first stays.
//
// The others are decoded value by value, and each step never falls as its argument rises, so the extremes of
// the decoded values are the decoded extremes:
// - a sum with a constant, a product with a positive constant, a quotient, a square root and a conversion to
//   a narrower type are correctly rounded, and rounding keeps the order; a product of two numbers that are
//   not negative and rise together rises;
// - the exponential is the correctly rounded one for every argument, which a test of all arguments holds it
//   to; between its square roots and squares nothing is negative;
// - the opacity 1 / (exp(-x) + 1) falls twice;
// - clamping keeps the order.
// A number, infinities among them, gives a number: exp and what follows give 0 and infinity for the
// infinities, the logistic 0 and 1, the colour the ends of its clamp. NaN gives NaN, which no range counts.
// None of the decoded values is a negative zero: exp, roots and squares of it are positive, the colour's sum
// cancels to a positive zero and the clamp gives one. So a bound that is zero has one sign. The packed
// rotation has no range.
AttributeBounding RawRanges::decoded() const {
    const RecordLayout& layout = recordLayout(hasCoefficients_);
    BlockRanges ranges;
    const auto copied = [this](std::size_t attribute) {
        ValueRange range = copiedRange(attribute);
        range.min = range.min == 0.0f ? zeros_[attribute].value : range.min;
        range.max = range.max == 0.0f ? zeros_[attribute].value : range.max;
        return range;
    };
    for (std::size_t axis = 0; axis < 3; ++axis) {
        ranges.position[axis] = copied(axis);
        ranges.normal[axis] = copied(3 + axis);
        if (hasCoefficients_) {
            ranges.coefficients[axis] = copied(6 + axis);
        }
        ranges.colour[axis] = decodedRange(columns_[colourAt + axis], decodeColour);
        ranges.scale[axis] = decodedRange(columns_[layout.scale + axis], decodeScale);
    }
    ranges.opacity = decodedRange(columns_[layout.opacity], decodeOpacity);
    AttributeBounding bounding;
    bounding.hasShcoef = hasCoefficients_;
    GaussionSplat::widen(bounding, ranges, hasCoefficients_);
    return bounding;
}

} // namespace Tavrin::SplatStream
