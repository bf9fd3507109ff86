// The extremes of every column of raw records, and the ranges of decoded values that follow from them.
#pragma once

#include "src/chunker_decode.h"
#include "src/records.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Tavrin::SplatStream {

// Of some records of a scene, visited in their order. The bounds are strict comparisons from the empty range
// on: NaN never counts.
class RawRanges {
public:
    explicit RawRanges(bool hasCoefficients) : m_hasCoefficients(hasCoefficients) {}

    // Widen by records, of which the first is the first-th of the scene. Later calls bring later records.
    void fold(const float* records, std::uint64_t count, std::uint64_t first);

    // Widen by those of other records of the scene, earlier or later.
    void join(const RawRanges& other);

    // The bounds of column i over all records folded in.
    const GaussionSplat::ValueRange& column(std::size_t i) const { return m_columns[i]; }

    // The ranges that the converter finds over the decoded records.
    GaussionSplat::AttributeBounding decoded() const;

private:
    // The copied attributes by axis or channel: position, normal, coefficients.
    static constexpr std::size_t copiedCount = 9;

    // The first zero of an attribute, which decides the sign of a bound that is zero.
    struct FirstZero {
        std::uint64_t record = UINT64_MAX; // none is known
        float value = 0.0f;
    };

    bool m_hasCoefficients;
    std::array<GaussionSplat::ValueRange, GaussionSplat::layoutWithShcoef.floats> m_columns;
    std::array<FirstZero, copiedCount> m_zeros;

    GaussionSplat::ValueRange copiedRange(std::size_t attribute) const;
    void findZeros(const float* records, std::uint64_t count, std::uint64_t first);
};

} // namespace Tavrin::SplatStream
