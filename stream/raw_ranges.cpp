#include "stream/raw_ranges.h"

#include "src/lanes.h"

namespace Tavrin::SplatStream {

using namespace GaussionSplat;

namespace {

template <std::size_t Lanes>
void foldColumns(const float* records, std::uint64_t count, ValueRange* columns) {
    LaneRanges<Lanes> bounds;
    bounds.foldRecords(records, count, Lanes);
    for (std::size_t lane = 0; lane < Lanes; ++lane) {
        columns[lane].min = minimum(columns[lane].min, bounds.min[lane]);
        columns[lane].max = maximum(columns[lane].max, bounds.max[lane]);
    }
}

// Where the columns of a copied attribute stand in a record.
struct Columns {
    std::size_t at;
    std::size_t width;
};
Columns columnsOf(std::size_t attribute) {
    if (attribute < 6) { // position and normal
        return {attribute, 1};
    }
    return {shcoefAt + (attribute - 6) * shcoefPerChannel, shcoefPerChannel};
}
static_assert(positionAt == 0 && normalAt == 3);

// The range of a value that is decoded from one column by a function that never falls as its argument rises,
// and that gives a number for every number.
template <typename Decode>
ValueRange decodedRange(const ValueRange& raw, Decode decode) {
    if (!(raw.min <= raw.max)) {
        return {}; // no value, or NaN alone: nothing is folded in
    }
    return {.min = decode(raw.min), .max = decode(raw.max)};
}

} // namespace

void RawRanges::fold(const float* records, std::uint64_t count, std::uint64_t first) {
    if (m_hasCoefficients) {
        foldColumns<layoutWithShcoef.floats>(records, count, m_columns.data());
    } else {
        foldColumns<layoutWithoutShcoef.floats>(records, count, m_columns.data());
    }
    findZeros(records, count, first);
}

ValueRange RawRanges::copiedRange(std::size_t attribute) const {
    const Columns columns = columnsOf(attribute);
    ValueRange range;
    for (std::size_t i = columns.at; i < columns.at + columns.width; ++i) {
        range.min = minimum(range.min, m_columns[i].min);
        range.max = maximum(range.max, m_columns[i].max);
    }
    return range;
}

// A zero matters where it is a bound of the whole scene. Then it is one of the records seen so far, too, from
// the first zero among them on: before that, the bound that is to be zero lay on zero's far side. So the
// first zero is in the window with which a bound became zero, and is looked for there alone.
void RawRanges::findZeros(const float* records, std::uint64_t count, std::uint64_t first) {
    const std::size_t stride = recordLayout(m_hasCoefficients).floats;
    for (std::size_t attribute = 0; attribute < (m_hasCoefficients ? copiedCount : 6); ++attribute) {
        FirstZero& zero = m_zeros[attribute];
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

void RawRanges::join(const RawRanges& other) {
    for (std::size_t i = 0; i < m_columns.size(); ++i) {
        m_columns[i].min = minimum(m_columns[i].min, other.m_columns[i].min);
        m_columns[i].max = maximum(m_columns[i].max, other.m_columns[i].max);
    }
    for (std::size_t attribute = 0; attribute < copiedCount; ++attribute) {
        if (other.m_zeros[attribute].record < m_zeros[attribute].record) {
            m_zeros[attribute] = other.m_zeros[attribute];
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
    const RecordLayout& layout = recordLayout(m_hasCoefficients);
    BlockRanges ranges;
    const auto copied = [this](std::size_t attribute) {
        ValueRange range = copiedRange(attribute);
        range.min = range.min == 0.0f ? m_zeros[attribute].value : range.min;
        range.max = range.max == 0.0f ? m_zeros[attribute].value : range.max;
        return range;
    };
    for (std::size_t axis = 0; axis < 3; ++axis) {
        ranges.position[axis] = copied(axis);
        ranges.normal[axis] = copied(3 + axis);
        if (m_hasCoefficients) {
            ranges.shcoef[axis] = copied(6 + axis);
        }
        ranges.colour[axis] = decodedRange(m_columns[colourAt + axis], decodeColour);
        ranges.scale[axis] = decodedRange(m_columns[layout.scale + axis], decodeScale);
    }
    ranges.opacity = decodedRange(m_columns[layout.opacity], decodeOpacity);
    AttributeBounding bounding;
    bounding.hasShcoef = m_hasCoefficients;
    mergeRanges(bounding, ranges, m_hasCoefficients);
    return bounding;
}

} // namespace Tavrin::SplatStream
