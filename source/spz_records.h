// Turns the packed arrays of an SPZ file into records.
#pragma once

#include "source/axes.h"
#include "source/spz_container.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Tavrin::SplatSource {

class SpzRecords {
public:
    SpzRecords(const SpzHeader& header, const AxisTurn& turn);

    // Turns all arrays of `count` splats, one array after the other, into canonical records. They have the
    // larger form if the file has coefficients. Those of degree 4 are dropped.
    void decode(const std::uint8_t* bytes, std::uint64_t count, float* records) const;

    // x y z of each splat. `bytes` holds the first array.
    void decodePositions(const std::uint8_t* bytes, std::uint64_t count, double* positions) const;

private:
    static constexpr std::size_t mostKept = 3 * coefficientsPerChannel;

    SpzHeader header_;
    AxisTurn turn_;
    float unit_; // of positions
    // For each coefficient, in the file's order: 0 keeps it, -1 changes its sign.
    std::array<std::int32_t, mostKept> signs_{};

    void decodePosition(const std::uint8_t* bytes, float (&xyz)[3]) const;
    void decodeRotation(const std::uint8_t* bytes, float (&wxyz)[4]) const;
    void decodeCoefficients(const std::uint8_t* bytes, float* coefficients) const;
    template <std::size_t kept>
    void turnCoefficients(const std::uint8_t* bytes, float* coefficients) const;
};

} // namespace Tavrin::SplatSource
