// Arithmetic of the scene generator. It uses no mathematics library, so every bit is the same everywhere.
#pragma once

#include "scenes/scenes.h"

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>

namespace scenes {

constexpr Point operator+(Point a, Point b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
constexpr Point operator-(Point a, Point b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
constexpr Point operator*(Point a, double s) {
    return {a.x * s, a.y * s, a.z * s};
}
// Component by component, as colours multiply.
constexpr Point operator*(Point a, Point b) {
    return {a.x * b.x, a.y * b.y, a.z * b.z};
}
constexpr double dot(Point a, Point b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
constexpr Point cross(Point a, Point b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline double length(Point a) {
    return std::sqrt(dot(a, a));
}
inline Point normalised(Point a) {
    return a * (1.0 / length(a));
}
constexpr Point mix(Point a, Point b, double t) {
    return a + (b - a) * t;
}
constexpr double clamp(double v, double low, double high) {
    return v < low ? low : (v > high ? high : v);
}

// The finaliser of splitmix64: a bijection of 64-bit numbers that spreads every input bit over all of them.
constexpr std::uint64_t scramble(std::uint64_t v) {
    v = (v ^ (v >> 30)) * 0xbf58476d1ce4e5b9u;
    v = (v ^ (v >> 27)) * 0x94d049bb133111ebu;
    return v ^ (v >> 31);
}

// A splitmix64 generator. Each splat has a stream of its own.
class Random {
public:
    Random(std::uint64_t seed, std::uint64_t stream)
        : state_(scramble(seed + 0x9e3779b97f4a7c15u) ^ scramble(stream ^ 0xd1b54a32d192ed03u)) {}

    std::uint64_t bits() {
        state_ += 0x9e3779b97f4a7c15u;
        return scramble(state_);
    }
    // Uniform in [0, 1), with all 53 bits of a double.
    double uniform() { return static_cast<double>(bits() >> 11) * 0x1p-53; }
    double uniform(double low, double high) { return low + (high - low) * uniform(); }
    // Uniform in 0 .. count - 1; the bias is below count / 2^53.
    std::uint32_t index(std::uint32_t count) {
        return static_cast<std::uint32_t>(uniform() * static_cast<double>(count));
    }
    bool chance(double probability) { return uniform() < probability; }
    // Mean 0, standard deviation 1, within +-3.5: the sum of the four 16-bit parts of one draw. Each part has
    // the variance 1/12, so the sum is scaled by the root of 3.
    double normal() {
        const std::uint64_t b = bits();
        const std::uint64_t sum = (b & 0xffffu) + ((b >> 16) & 0xffffu) + ((b >> 32) & 0xffffu) + (b >> 48);
        return (static_cast<double>(sum) * 0x1p-16 - 2.0) * 1.7320508075688772;
    }
    // A point on the unit circle (z = 0).
    Point onCircle() {
        for (;;) {
            const Point p{uniform(-1.0, 1.0), uniform(-1.0, 1.0), 0.0};
            const double square = dot(p, p);
            if (square > 0.01 && square <= 1.0) {
                return p * (1.0 / std::sqrt(square));
            }
        }
    }
    // A point on the unit sphere: z is uniform there.
    Point onSphere() {
        const double z = uniform(-1.0, 1.0);
        const Point circle = onCircle();
        const double r = std::sqrt(1.0 - z * z);
        return {circle.x * r, circle.y * r, z};
    }

private:
    std::uint64_t state_;
};

// Natural logarithm of a positive normal number, to about 1e-13. The mantissa is brought to
// [sqrt(1/2), sqrt(2)] and ln m = 2 artanh((m - 1) / (m + 1)) summed to the 15th power.
inline double naturalLog(double v) {
    const auto bits = std::bit_cast<std::uint64_t>(v);
    int exponent = static_cast<int>(bits >> 52) - 1023;
    double m = std::bit_cast<double>((bits & 0x000fffffffffffffu) | 0x3ff0000000000000u);
    if (m > 1.4142135623730951) {
        m *= 0.5;
        exponent += 1;
    }
    const double t = (m - 1.0) / (m + 1.0);
    const double s = t * t;
    double sum = 1.0 / 15.0;
    for (int k = 13; k >= 1; k -= 2) {
        sum = sum * s + 1.0 / k;
    }
    return 2.0 * t * sum + 0.6931471805599453 * exponent;
}

// Smooth noise in [0, 1] with features of unit size: cubic blends of random values on the integer lattice.
inline double noise(double x, double y, std::uint64_t seed) {
    const double fx = std::floor(x);
    const double fy = std::floor(y);
    const auto ix = static_cast<std::int64_t>(fx);
    const auto iy = static_cast<std::int64_t>(fy);
    const auto at = [seed](std::int64_t i, std::int64_t j) {
        const auto a = static_cast<std::uint64_t>(i) * 0x8cb92ba72f3d8dd7u;
        const auto b = static_cast<std::uint64_t>(j) * 0xa24baed4963ee407u;
        return static_cast<double>(scramble(a ^ scramble(b + seed)) >> 11) * 0x1p-53;
    };
    const double u = (x - fx) * (x - fx) * (3.0 - 2.0 * (x - fx));
    const double v = (y - fy) * (y - fy) * (3.0 - 2.0 * (y - fy));
    const double low = at(ix, iy) + (at(ix + 1, iy) - at(ix, iy)) * u;
    const double high = at(ix, iy + 1) + (at(ix + 1, iy + 1) - at(ix, iy + 1)) * u;
    return low + (high - low) * v;
}

// Real spherical harmonics of degrees 1 to 3, with the signs and in the order that splat renderers use;
// `d` is the unit vector from the eye to the splat.
inline std::array<double, 15> harmonics(Point d) {
    const double xx = d.x * d.x;
    const double yy = d.y * d.y;
    const double zz = d.z * d.z;
    return {-0.4886025119 * d.y,
            0.4886025119 * d.z,
            -0.4886025119 * d.x,
            1.0925484306 * d.x * d.y,
            -1.0925484306 * d.y * d.z,
            0.3153915653 * (2.0 * zz - xx - yy),
            -1.0925484306 * d.x * d.z,
            0.5462742153 * (xx - yy),
            -0.5900435899 * d.y * (3.0 * xx - yy),
            2.8906114426 * d.x * d.y * d.z,
            -0.4570457995 * d.y * (4.0 * zz - xx - yy),
            0.3731763326 * d.z * (2.0 * zz - 3.0 * xx - 3.0 * yy),
            -0.4570457995 * d.x * (4.0 * zz - xx - yy),
            1.4453057213 * d.z * (xx - yy),
            -0.5900435899 * d.x * (xx - 3.0 * yy)};
}

} // namespace scenes
