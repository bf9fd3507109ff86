// The ground grid as the meta document implies it, and cell keys.
#pragma once

#include "reader/meta.h"

#include <cstdint>
#include <optional>

namespace Tavrin::SplatReader {

// The cells that a dataset may hold. A scene of at most Format::oneCellMaximum splats is a single cell with
// key 0.
struct Grid {
    bool oneCell = true;
    float originX = 0.0f;
    float originY = 0.0f;
    float cellSizeX = 0.0f;
    float cellSizeY = 0.0f;
    // Number of cells. 0 if the extents are not finite or the count does not fit 32 bits: no cell can be
    // checked then.
    std::int64_t countX = 0;
    std::int64_t countY = 0;

    bool countable() const { return countX > 0 && countY > 0; }
    // With more than 65536 cells on an axis, the halves of the key run into each other. Keys may then repeat,
    // and an entry may be empty because an earlier one took its splats.
    bool ambiguous() const { return countX > 65536 || countY > 65536; }

    // The key of the cell that holds (x, y). Single precision throughout, as in the converter.
    std::uint32_t keyAt(float x, float y) const;
};

Grid gridOf(const Meta& meta);

// The cell lengths that the converter chooses for a scene of this count and extent.
struct CellLengths {
    double x;
    double y;
};
CellLengths expectedCellLengths(std::uint64_t splats, const Point& boundingMin, const Point& boundingMax);

inline std::uint32_t keyColumn(std::uint32_t key) {
    return key & 0xFFFFu;
}
inline std::uint32_t keyRow(std::uint32_t key) {
    return key >> 16;
}

} // namespace Tavrin::SplatReader
