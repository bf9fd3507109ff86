// Turns splats from the axes of a file to those of a trained PLY: x right, y down, z front.
#pragma once

#include <cstdint>

namespace Tavrin::SplatSource {

// The axes in which the positions of a file are taken to be stored, for kinds of files that leave them open.
enum class InputAxes {
    stated,         // as the file says, else as is usual for its kind
    rightUpBack,    // whatever the file says
    rightDownFront, // whatever the file says: nothing is turned
};

// Coefficients of degrees 1 to 3, a channel.
inline constexpr int coefficientsPerChannel = 15;

// A turn: signs of the axes and, where the third axis points up, a quarter turn about x after them. Both
// leave lengths unchanged.
struct AxisTurn {
    // Signs of the axes, +1 or -1.
    int x = 1;
    int y = 1;
    int z = 1;
    bool isQuarterTurned = false;

    bool isNone() const { return x == 1 && y == 1 && z == 1 && !isQuarterTurned; }

    void position(float (&xyz)[3]) const;
    void rotation(float (&wxyz)[4]) const;
    // One channel's coefficients, degree after degree; only the first `count` (3, 8 or 15) are there.
    void coefficients(float* channel, int count) const;
};

// The turn from stored axes, given as a code from 1 to 16. The bits of code - 1 (of code - 9 for 9 to 16) say
// right, up and back. Codes 9 to 16 have y and z exchanged. 4 is right, up, back; 6 is right, down, front.
AxisTurn turnFromAxes(std::uint32_t code);

inline constexpr std::uint32_t mostAxesCode = 16;
inline constexpr std::uint32_t axesRightUpBack = 4;
inline constexpr std::uint32_t axesRightDownFront = 6;

} // namespace Tavrin::SplatSource
