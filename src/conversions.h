// The one rule for a floating-point value that becomes an integer field.
#pragma once

#include <cstdint>

namespace Tavrin::GaussionSplat {

// Truncated toward zero to a 64-bit integer where that holds the value, else 0 (NaN, infinities, out of
// range). Callers keep the low bits that their field is wide.
inline std::uint64_t truncateToBits(double value) {
    constexpr double limit = 9223372036854775808.0; // 2^63
    if (value >= -limit && value < limit) {
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(value));
    }
    return 0;
}

} // namespace Tavrin::GaussionSplat
