#include "src/cells.h"

#include <algorithm>

namespace Tavrin::GaussionSplat {

namespace {

constexpr std::size_t tileSplats = 64;

// The indices along one axis of a tile of positions, and whether all of them are near. The loop is straight
// so that the compiler vectorises it. The index of a position that is not near is meaningless.
bool nearIndices(const float (&positions)[tileSplats], float origin, float cellSize,
                 std::uint32_t (&indices)[tileSplats]) {
    unsigned outside = 0;
    for (std::size_t i = 0; i < tileSplats; ++i) {
        const float cells = (positions[i] - origin) / cellSize;
        const bool holds = isNear(cells);
        outside |= holds ? 0u : 1u;
        indices[i] = static_cast<std::uint32_t>(nearIndex(holds ? cells : 0.0f));
    }
    return outside == 0;
}

} // namespace

void cellKeys(const float* records, std::size_t stride, std::uint64_t count, const ChunkGrid& grid,
              std::uint32_t* keys) {
    alignas(64) float x[tileSplats] = {};
    alignas(64) float y[tileSplats] = {};
    alignas(64) std::uint32_t columns[tileSplats];
    alignas(64) std::uint32_t rows[tileSplats];
    for (std::uint64_t done = 0; done < count; done += tileSplats) {
        const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(count - done, tileSplats));
        const float* const tile = records + done * stride;
        for (std::size_t i = 0; i < size; ++i) {
            x[i] = tile[i * stride];
            y[i] = tile[i * stride + 1];
        }
        const bool nearColumns = nearIndices(x, grid.originX, grid.cellSizeX, columns);
        const bool nearRows = nearIndices(y, grid.originY, grid.cellSizeY, rows);
        for (std::size_t i = 0; i < size; ++i) {
            keys[done + i] = nearColumns && nearRows ? columns[i] | rows[i] << 16 : cellKey(x[i], y[i], grid);
        }
    }
}

} // namespace Tavrin::GaussionSplat
