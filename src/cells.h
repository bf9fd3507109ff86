// The cell of a splat, and counting splats by cell.
#pragma once

#include "src/conversions.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

namespace Tavrin::GaussionSplat {

// A grid of ground cells. A splat at (x, y) lies in column floor((x - originX) / cellSizeX) and row
// floor((y - originY) / cellSizeY), in single precision.
struct ChunkGrid {
    float cellSizeX = 0.0f; // scene units
    float cellSizeY = 0.0f;
    float originX = 0.0f;
    float originY = 0.0f;
    std::int32_t cellCountX = 0;
    std::int32_t cellCountY = 0;

    bool operator==(const ChunkGrid&) const = default;
};

// A scene of more splats than this is split into ground cells. A scene of up to this many is a single cell
// with key 0. The test deliberately differs from that of gridVertexCount: exactly 1,000,000 splats get the
// cell size of a grid and a single cell.
inline constexpr std::uint64_t singleCellSplats = 1'000'000;

// True if nearIndex may be called.
inline bool isNear(float cells) {
    return cells > -1e9f && cells < 1e9f;
}

// floor(cells) for a value that fits an int. Truncation rounds a negative value up; one is subtracted then.
inline std::int32_t nearIndex(float cells) {
    const auto truncated = static_cast<std::int32_t>(cells);
    return truncated - (static_cast<float>(truncated) > cells ? 1 : 0);
}

// The key of a splat's cell: its column in the low 16 bits, OR-ed with its row shifted left by 16. Neither is
// masked: an index below 0 or above 65,535 runs into the other half. Single precision.
inline std::uint32_t cellKey(float x, float y, const ChunkGrid& grid) {
    const auto index = [](float cells) {
        return isNear(cells) ? static_cast<std::uint32_t>(nearIndex(cells))
                             : static_cast<std::uint32_t>(truncateToBits(std::floor(cells)));
    };
    return index((x - grid.originX) / grid.cellSizeX) | index((y - grid.originY) / grid.cellSizeY) << 16;
}

// The cellKey of count splats. Records are stride floats apart and start with x and y.
void cellKeys(const float* records, std::size_t stride, std::uint64_t count, const ChunkGrid& grid,
              std::uint32_t* keys);

// Splats of one cell.
struct CellCount {
    std::uint32_t key = 0;
    std::uint64_t splats = 0;
};

// Counts splats by cell, and numbers the cells in the order in which they are first seen.
class CellCounter {
public:
    CellCounter() { remembered_[hashOf(0)].key = 1; }

    // The number of the cell of key. A key seen for the first time gets a new cell with no splats.
    std::uint32_t numberOf(std::uint32_t key) {
        const Remembered& entry = remembered_[hashOf(key)];
        return entry.key == key ? entry.number : find(key);
    }

    void add(std::uint32_t key, std::uint64_t splats) { cells_[numberOf(key)].splats += splats; }

    // By number.
    const std::vector<CellCount>& counts() const { return cells_; }

private:
    // A look-up cache in front of numbers_. A scene has far fewer cells than the cache has entries. An empty
    // entry holds a key that belongs to another entry, so no look-up matches it.
    struct Remembered {
        std::uint32_t key = 0;
        std::uint32_t number = 0;
    };
    static constexpr std::size_t rememberedCount = 4096; // a power of two

    std::vector<CellCount> cells_;
    std::unordered_map<std::uint32_t, std::uint32_t> numbers_; // by key
    std::array<Remembered, rememberedCount> remembered_;

    static std::size_t hashOf(std::uint32_t key) { return (key ^ key >> 10) % rememberedCount; }

    std::uint32_t find(std::uint32_t key) {
        const auto [entry, isNew] = numbers_.emplace(key, static_cast<std::uint32_t>(cells_.size()));
        if (isNew) {
            cells_.push_back({.key = key, .splats = 0});
        }
        remembered_[hashOf(key)] = {.key = key, .number = entry->second};
        return entry->second;
    }
};

} // namespace Tavrin::GaussionSplat
