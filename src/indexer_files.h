// The cells that the writers visit, and the names that they log under.
#pragma once

#include "src/indexer_records.h"
#include "src/splatheader.h"

#include <cstdint>
#include <vector>

namespace Tavrin::GaussionSplat {

inline constexpr const char* indexerSource = "src/indexer";

// The keys that a walk over the grid finds among occupied, which holds none twice, in the order of the walk:
// column by column, row by row. The walk forms the key of each column and row without masking either to 16
// bits, so on a grid of more than 65,536 columns or rows it meets a key more than once.
std::vector<std::uint32_t> walkGrid(const ChunkGrid& grid, const std::vector<std::uint32_t>& occupied);
std::vector<std::uint32_t> walkGrid(const ChunkGrid& grid, const LODData& level);

} // namespace Tavrin::GaussionSplat
