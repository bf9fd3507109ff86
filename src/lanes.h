// Bounds of many values side by side, for loops that the compiler turns into vector code.
#pragma once

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <limits>

namespace Tavrin::GaussionSplat {

// Strict comparisons: the result is a where b is NaN, or where both are zeros.
inline float minimum(float a, float b) {
    return a > b ? b : a;
}
inline float maximum(float a, float b) {
    return b > a ? b : a;
}

// Bounds of Lanes values side by side.
template <std::size_t Lanes>
struct LaneRanges {
    alignas(64) float min[Lanes];
    alignas(64) float max[Lanes];

    LaneRanges() {
        std::fill(std::begin(min), std::end(min), std::numeric_limits<float>::infinity());
        std::fill(std::begin(max), std::end(max), -std::numeric_limits<float>::infinity());
    }

    // Widen the bounds by Lanes values of each of count records. The records are stride floats apart.
    void widen(const float* values, std::size_t count, std::size_t stride) {
        for (std::size_t i = 0; i < count; ++i, values += stride) {
            for (std::size_t lane = 0; lane < Lanes; ++lane) {
                min[lane] = minimum(min[lane], values[lane]);
                max[lane] = maximum(max[lane], values[lane]);
            }
        }
    }
};

} // namespace Tavrin::GaussionSplat
