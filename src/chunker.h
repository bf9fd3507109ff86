// The chunker: cuts the vertex data of the input into blocks, decodes them in parallel and gathers the
// attribute ranges.
#pragma once

#include "src/cells.h"
#include "src/large_pages.h"
#include "src/records.h"
#include "src/splatheader.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Tavrin::GaussionSplat {

// Bytes that the indexer's record of a splat takes in memory.
inline constexpr std::uint64_t indexedSplatBytes = 288;

// The cells of a block's splats in a grid, found while the block was in the cache.
struct ChunkCells {
    ChunkGrid grid;
    CellCounter counter;              // splats by cell
    LargeArray<std::uint32_t> keys{}; // cellKey of every splat, in the order of the block
};

// One decoded block. The records keep the layout of the input (62 or 17 floats); colour holds [0, 1] values,
// opacity the opacity in [0, 1], scale linear scales, and the four rotation slots the packed rotation.
struct ChunkData {
    std::uint32_t splatCount = 0;
    std::uint32_t level = 0;
    // splatCount records in file order, from allocateLarge. Not freed here: the indexer frees it with
    // freeLarge as soon as it has regrouped the block.
    float* data = nullptr;
    // For scenes that have a grid; the indexer finds what is not here.
    std::shared_ptr<const ChunkCells> cells;
    // Whole large pages for what the indexer's records of the block take beyond data, which the workers have
    // touched. The system clears memory at its first touch; the workers have that done side by side, the
    // indexer has one thread. May be empty.
    LargeArray<std::byte> room;
};

using ChunkList = std::vector<std::shared_ptr<ChunkData>>;

struct Chunker {
    std::shared_ptr<AttributeBounding> bounding; // set by doChunking
    std::string name;                            // set by doChunking to the output folder; nothing reads it
    std::vector<SplatHeader> headers;            // one for each input file
    std::int32_t flag = 1;                       // not read
    std::uint64_t threadCount = 0;               // worker threads

    // A block to decode.
    struct Task {
        std::string path;
        std::uint32_t stride = 0; // bytes of a record
        std::uint64_t count = 0;  // records
        std::uint64_t first = 0;  // index of the first record within its file
        std::uint64_t offset = 0; // byte position of the first record
        std::uint64_t length = 0; // bytes
        std::uint32_t level = 0;
        std::uint64_t ordinal = 0; // place among all blocks of the pass, in file order
    };

    // Decode every block on a pool of threadCount workers. Afterwards chunks holds one ChunkData for each
    // block whose file could be opened, in file order, and bounding is widened by all of them. Writes two
    // INFO lines. Throws std::system_error when a thread cannot be started.
    void doChunking(std::shared_ptr<AttributeBounding> bounding, std::shared_ptr<ChunkList> chunks,
                    std::string output);
};

// Free the blocks of records of recordSize bytes that are still in the list and empty their entries.
void releaseChunks(ChunkList& chunks, std::uint32_t recordSize) noexcept;

} // namespace Tavrin::GaussionSplat
