#include "source/axes.h"

#include <cmath>

namespace Tavrin::SplatSource {
namespace {

void flip(float& value, int sign) {
    value = sign < 0 ? 0.0f - value : value; // no negative zero
}

// The quarter turn (x, y, z) -> (x, z, -y) of spherical harmonics of degrees 1 to 3. Each coefficient becomes
// a mixture of those of its degree, with the factors of the real basis.
void quarterTurn(float* p, int count) {
    const double a = std::sqrt(3.0) / 2.0;
    const double b = std::sqrt(5.0 / 8.0);
    const double c = std::sqrt(3.0 / 8.0);
    const double d = std::sqrt(15.0) / 4.0;
    double old[coefficientsPerChannel] = {};
    for (int k = 0; k < count; ++k) {
        old[k] = p[k];
    }
    const auto set = [&](int k, double value) { p[k] = static_cast<float>(value); };
    set(0, -old[1]);
    set(1, old[0]);
    if (count >= 8) {
        const double* const q = old + 3;
        set(3, -q[3]);
        set(4, -q[1]);
        set(5, -q[2] / 2.0 - a * q[4]);
        set(6, q[0]);
        set(7, -a * q[2] + q[4] / 2.0);
    }
    if (count >= 15) {
        const double* const q = old + 8;
        set(8, b * q[3] - c * q[5]);
        set(9, -q[1]);
        set(10, c * q[3] + b * q[5]);
        set(11, -b * q[0] - c * q[2]);
        set(12, -q[4] / 4.0 - d * q[6]);
        set(13, c * q[0] - b * q[2]);
        set(14, -d * q[4] + q[6] / 4.0);
    }
}

} // namespace

void AxisTurn::position(float (&xyz)[3]) const {
    flip(xyz[0], x);
    flip(xyz[1], y);
    flip(xyz[2], z);
    if (isQuarterTurned) {
        const float up = xyz[1];
        xyz[1] = xyz[2];
        xyz[2] = 0.0f - up;
    }
}

void AxisTurn::rotation(float (&wxyz)[4]) const {
    flip(wxyz[1], y * z);
    flip(wxyz[2], x * z);
    flip(wxyz[3], x * y);
    if (isQuarterTurned) {
        const double half = std::sqrt(0.5);
        const double w = wxyz[0];
        const double i = wxyz[1];
        const double j = wxyz[2];
        const double k = wxyz[3];
        wxyz[0] = static_cast<float>(half * (w + i));
        wxyz[1] = static_cast<float>(half * (i - w));
        wxyz[2] = static_cast<float>(half * (j + k));
        wxyz[3] = static_cast<float>(half * (k - j));
    }
}

void AxisTurn::coefficients(float* channel, int count) const {
    // A basis function changes its sign with each axis that it contains to an odd power.
    const int signs[coefficientsPerChannel] = {y,     z,         x,                  // degree 1
                                               x * y, y * z,     1, x * z, 1,        // degree 2
                                               y,     x * y * z, y, z,     x, z, x}; // degree 3
    for (int k = 0; k < count; ++k) {
        flip(channel[k], signs[k]);
    }
    if (isQuarterTurned) {
        quarterTurn(channel, count);
    }
}

AxisTurn turnFromAxes(std::uint32_t code) {
    const std::uint32_t bits = (code - 1) % 8;
    const bool isRight = (bits & 1) != 0;
    const bool isUp = (bits & 2) != 0;
    const bool isFront = (bits & 4) != 0;
    return {.x = isRight ? 1 : -1, .y = isUp ? -1 : 1, .z = isFront ? 1 : -1, .isQuarterTurned = code > 8};
}

} // namespace Tavrin::SplatSource
