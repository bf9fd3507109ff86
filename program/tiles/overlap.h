// Tiles that cover the same ground.
#pragma once

#include "program/tiles/footprint.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tavrin::SplatProgram {

// Where a tile lies, as far as that is known.
struct Ground {
    std::int32_t epsg = 0;                // 0 where the dataset states none
    Rectangle box;                        // in the coordinates of the code
    const Footprint* footprint = nullptr; // null without one
};

struct Overlap {
    std::size_t first;  // place of a tile in the list
    std::size_t second; // of a later one
    double share;       // of the smaller tile's area, 0 to 1
};

// All pairs that share more than `least` of the smaller one's area, in the order of the list. Tiles of one
// code are compared by their boxes and others by their footprints on the globe. A tile without a code has
// coordinates that nobody else's can be compared with.
std::vector<Overlap> overlapsOf(const std::vector<Ground>& tiles, double least);

} // namespace Tavrin::SplatProgram
