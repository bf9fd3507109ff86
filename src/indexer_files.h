// The cells that the writers visit, and the names that they log under.
#pragma once

#include "src/indexer_records.h"
#include "src/splatheader.h"

#include <cstdint>
#include <vector>

namespace Tavrin::GaussionSplat {

inline constexpr const char* indexerSource = "src/indexer";

// The keys of occupied in the order of a walk over the grid, column by column and row by row. occupied holds
// no key twice. The walk forms each key without masking column or row to 16 bits. So on a grid of more than
// 65,536 columns or rows a key can appear more than once.
std::vector<std::uint32_t> walkGrid(const ChunkGrid& grid, const std::vector<std::uint32_t>& occupied);

// How often walkGrid lists this key where it is occupied.
std::uint64_t countSteps(const ChunkGrid& grid, std::uint32_t key);

// The walk over a level's cells.
std::vector<std::uint32_t> walkGrid(const ChunkGrid& grid, const LODData& level);

} // namespace Tavrin::GaussionSplat
