// Elementary functions of the decoder: single precision, computed by our own double-precision arithmetic and
// rounded once.
//
// The exp and pow of different systems sometimes differ in the last place. These functions use only
// additions, multiplications and square roots, which every system rounds alike. Plain loops over them
// vectorise.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>

namespace Tavrin::GaussionSplat {

// exp(x) in double precision for a single-precision x.
//
// x = k ln 2 + r with |r| <= ln 2 / 2, and exp(x) = 2^k exp(r). ln 2 is split so that k times its high part
// is exact. exp(r) is its Taylor polynomial of degree 13; the remainder is below 2^-57 there. Arguments are
// clamped to [-110, 100]: beyond, single precision has only 0 and infinity. NaN stays NaN.
inline double exponentialDouble(float x) {
    constexpr double log2e = 1.4426950408889634;
    constexpr double ln2High = 0x1.62e42fefap-1;     // 35 bits
    constexpr double ln2Low = 0x1.cf79abc9e3b39p-40; // ln 2 - ln2High
    constexpr double toInteger = 0x1.8p52;           // adding it leaves the nearest integer in the low bits
    float held = x; // in single precision: twice as many fit a vector, and they widen once
    held = held < -110.0f ? -110.0f : held;
    held = held > 100.0f ? 100.0f : held;
    const double bounded = held;
    const double shifted = bounded * log2e + toInteger;
    const double k = shifted - toInteger;
    const double r = (bounded - k * ln2High) - k * ln2Low;
    const double r2 = r * r;
    const double r4 = r2 * r2;
    const double r8 = r4 * r4;
    // 1/n!, in pairs (Estrin's scheme): short chains keep several arguments in flight.
    const double c01 = 1.0 + r;
    const double c23 = 1.0 / 2 + r * (1.0 / 6);
    const double c45 = 1.0 / 24 + r * (1.0 / 120);
    const double c67 = 1.0 / 720 + r * (1.0 / 5040);
    const double c89 = 1.0 / 40320 + r * (1.0 / 362880);
    const double c1011 = 1.0 / 3628800 + r * (1.0 / 39916800);
    const double c1213 = 1.0 / 479001600 + r * (1.0 / 6227020800);
    const double low = (c01 + r2 * c23) + r4 * (c45 + r2 * c67);
    const double high = (c89 + r2 * c1011) + r4 * c1213;
    const double polynomial = low + r8 * high;
    // Multiply by 2^k by adding k, the low bits of shifted, to the exponent. The polynomial lies in
    // [0.7, 1.5] and k in [-159, 145], so the exponent neither overflows nor underflows.
    const std::uint64_t exponent = std::bit_cast<std::uint64_t>(shifted) << 52;
    return std::bit_cast<double>(std::bit_cast<std::uint64_t>(polynomial) + exponent);
}

// exp(x), rounded once to single precision.
inline float exponential(float x) {
    return static_cast<float>(exponentialDouble(x));
}

// The eighth root of |x|, as three square roots in double precision, rounded once.
inline float eighthRoot(float x) {
    return static_cast<float>(std::sqrt(std::sqrt(std::sqrt(static_cast<double>(std::abs(x))))));
}

} // namespace Tavrin::GaussionSplat
