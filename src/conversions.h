// The one rule for converting a floating-point value to an integer field.
#pragma once

#include <cstdint>

namespace Tavrin::GaussionSplat {

// The value truncated toward zero to a 64-bit integer, or 0 where no such integer holds it (NaN, infinities,
// out of range). Callers keep the low bits that their field holds.
inline std::uint64_t truncateToBits(double value) {
    constexpr double limit = 9223372036854775808.0; // 2^63
    if (value >= -limit && value < limit) {
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
    }
    return 0;
}

} // namespace Tavrin::GaussionSplat
