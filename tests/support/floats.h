// Floats for tests: arbitrary bit patterns, and values that break careless arithmetic.
#pragma once

#include "tests/support/plyfile.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace support {

inline constexpr float infinity = std::numeric_limits<float>::infinity();
inline constexpr float nan = std::numeric_limits<float>::quiet_NaN();

inline std::uint32_t bitsOf(float value) {
    return std::bit_cast<std::uint32_t>(value);
}

// Equal bit for bit, or both NaN: which NaN an operation gives is unspecified.
inline bool sameFloat(float a, float b) {
    return bitsOf(a) == bitsOf(b) || (std::isnan(a) && std::isnan(b));
}

// The value with all its digits and its bits, for messages.
std::string describe(float value);

// Zeros, ones, subnormals, limits, infinities, NaNs and their neighbours, of both signs.
const std::vector<float>& awkwardFloats();

// Any bit pattern at all.
inline float anyFloat(Random& random) {
    return std::bit_cast<float>(static_cast<std::uint32_t>(random.next() >> 32));
}
inline double anyDouble(Random& random) {
    return std::bit_cast<double>(random.next());
}

inline std::uint64_t below(Random& random, std::uint64_t limit) {
    return random.next() % limit;
}

// A third each: any bit pattern, an awkward value, an ordinary value between low and high.
float mixedFloat(Random& random, float low, float high);

} // namespace support
