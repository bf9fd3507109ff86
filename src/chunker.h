// The chunker: cuts the records of the input into blocks, decodes them in parallel and finds the attribute
// ranges.
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

// Bytes of a quantised record in memory.
inline constexpr std::uint64_t indexedSplatBytes = 288;

// The cells of a block's splats in a grid, found while the block was in the cache.
struct BlockCells {
    ChunkGrid grid;
    CellCounter counter;              // splats by cell
    LargeArray<std::uint32_t> keys{}; // cellKey of every splat, in the order of the block
};

// One decoded block. The records keep the layout of the input (recordLayout). Colours are in [0, 1],
// opacity is in [0, 1], scales are linear, and the four rotation values hold the packed rotation.
struct ChunkData {
    std::uint32_t splatCount = 0;
    std::uint32_t level = 0;
    // splatCount records in file order, from allocateLarge. The indexer frees it with freeLarge as soon as
    // the block is regrouped; this struct does not.
    float* data = nullptr;
    // Set for scenes that have a grid. Where it is empty, the indexer finds the cells itself.
    std::shared_ptr<const BlockCells> cells;
    // Whole huge pages, pre-faulted by the workers: the part of the block's quantised records that data does
    // not cover. The system clears memory at its first touch. The workers share that cost; the indexer has
    // one thread. May be empty.
    LargeArray<std::byte> room;
};

using BlockList = std::vector<std::shared_ptr<ChunkData>>;

struct Chunker {
    std::shared_ptr<AttributeBounding> bounding; // set by doChunking
    std::string name;                            // set by doChunking to the output folder; nothing reads it
    std::vector<SplatHeader> headers;            // one per input file
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
    void doChunking(std::shared_ptr<AttributeBounding> bounding, std::shared_ptr<BlockList> chunks,
                    std::string output);
};

// Free the blocks still in the list, whose records take recordSize bytes each, and empty their entries.
void releaseBlocks(BlockList& chunks, std::uint32_t recordSize) noexcept;

} // namespace Tavrin::GaussionSplat
