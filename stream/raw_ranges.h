// Finds the extremes of every column of raw records, and from them the ranges of the decoded values.
#pragma once

#include "src/chunker_decode.h"
#include "src/kernels.h"
#include "src/records.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Tavrin::SplatStream {

// The bounds over some records of a scene, visited in order. Comparisons are strict and start from the empty
// range: NaN never counts.
class RawRanges {
public:
    explicit RawRanges(bool hasCoefficients, GaussionSplat::Kernels kernels = GaussionSplat::chosenKernels)
        : hasCoefficients_(hasCoefficients), kernels_(kernels) {}

    // The first columns of some records: x, y and z.
    using Positions = std::array<GaussionSplat::ValueRange, 3>;

    // Widens by `count` records, the first of which is record `first` of the scene. Each call must bring
    // later records than the one before. Returns the ranges of their positions.
    Positions widen(const float* records, std::uint64_t count, std::uint64_t first);

    // Widens by the bounds of other records of the scene, earlier or later.
    void widen(const RawRanges& other);

    // The bounds of column i over all records so far.
    const GaussionSplat::ValueRange& column(std::size_t i) const { return columns_[i]; }

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

    bool hasCoefficients_;
    GaussionSplat::Kernels kernels_;
    std::array<GaussionSplat::ValueRange, GaussionSplat::layoutWithCoefficients.floats> columns_;
    std::array<FirstZero, copiedCount> zeros_;

    void widenColumns(
        const std::array<GaussionSplat::ValueRange, GaussionSplat::layoutWithCoefficients.floats>& others);
    GaussionSplat::ValueRange copiedRange(std::size_t attribute) const;
    void findZeros(const float* records, std::uint64_t count, std::uint64_t first);
};

} // namespace Tavrin::SplatStream
