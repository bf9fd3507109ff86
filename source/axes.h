// Turns splats from the axes of a file to those of a trained PLY: x right, y down, z forward.
#pragma once

#include <cstdint>

namespace Tavrin::SplatSource {

// The axes of a file's positions, for kinds of files that need not state them.
enum class InputAxes {
    stated,         // as the file states, else the default of its kind
    rightUpBack,    // whatever the file says
    rightDownFront, // whatever the file says; nothing is turned
};

// Coefficients of degrees 1 to 3 in each channel.
inline constexpr int coefficientsPerChannel = 15;

// A turn: first the signs of the axes, then a quarter turn about x if the third axis points up. Both keep
// lengths.
struct AxisTurn {
    // Signs of the axes, +1 or -1.
    int x = 1;
    int y = 1;
    int z = 1;
    bool isQuarterTurned = false;

    void position(float (&xyz)[3]) const;
    void rotation(float (&wxyz)[4]) const;
    // One channel's `count` (3, 8 or 15) coefficients, degree after degree.
    void coefficients(float* channel, int count) const;
};

// The turn from stored axes, given as a code from 1 to 16. The bits of code - 1 (of code - 9 for 9 to 16) say
// right, up and back. Codes 9 to 16 have y and z exchanged. 4 is right, up, back; 6 is right, down, front.
AxisTurn turnFromAxes(std::uint32_t code);

inline constexpr std::uint32_t mostAxesCode = 16;
inline constexpr std::uint32_t axesRightUpBack = 4;
inline constexpr std::uint32_t axesRightDownFront = 6;

} // namespace Tavrin::SplatSource
