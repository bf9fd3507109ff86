#include "tests/support/floats.h"

#include <cstdio>
#include <limits>

namespace support {

std::string describe(float value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.9g (0x%08X)", static_cast<double>(value), bitsOf(value));
    return text;
}

const std::vector<float>& awkwardFloats() {
    static const std::vector<float> values = [] {
        using Limits = std::numeric_limits<float>;
        const float positive[] = {0.0f,
                                  Limits::denorm_min(),
                                  std::bit_cast<float>(0x007FFFFFu), // the largest subnormal
                                  Limits::min(),
                                  0.25f,
                                  0.5f,
                                  std::nextafter(1.0f, 0.0f),
                                  1.0f,
                                  std::nextafter(1.0f, 2.0f),
                                  2.0f,
                                  88.72283f, // the largest x with a finite single-precision exp(x)
                                  88.72284f,
                                  103.97208f, // exp(-x) is nearly 0
                                  104.0f,
                                  255.5f,
                                  65535.5f,
                                  16777216.0f,            // 2^24
                                  2147483648.0f,          // 2^31
                                  4294967296.0f,          // 2^32
                                  9223372036854775808.0f, // 2^63
                                  1e30f,
                                  Limits::max(),
                                  Limits::infinity(),
                                  Limits::quiet_NaN(),
                                  std::bit_cast<float>(0x7F800001u)}; // a signalling NaN
        std::vector<float> both;
        for (const float value : positive) {
            both.push_back(value);
            both.push_back(std::bit_cast<float>(bitsOf(value) ^ 0x80000000u));
        }
        return both;
    }();
    return values;
}

float mixedFloat(Random& random, float low, float high) {
    switch (below(random, 3)) {
    case 0:
        return anyFloat(random);
    case 1:
        return awkwardFloats()[below(random, awkwardFloats().size())];
    default:
        return random.between(low, high);
    }
}

} // namespace support
