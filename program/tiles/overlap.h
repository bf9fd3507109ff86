// Finds tiles that cover the same ground.
#pragma once

#include "program/tiles/footprint.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tavrin::SplatProgram {

// The area of a tile, as far as it is known.
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

// All pairs that share more than `least` (0 to 1) of the smaller tile's area, in the order of the list. Tiles
// of the same code are compared by their boxes, others by their footprints on the globe. A tile without a
// code is compared with none.
std::vector<Overlap> overlapsOf(const std::vector<Ground>& tiles, double least);

} // namespace Tavrin::SplatProgram
