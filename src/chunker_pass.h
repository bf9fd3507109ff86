// One pass of the chunker: what its workers share, and the body that decodes one block.
#pragma once

#include "src/blocks_share.h"
#include "src/chunker.h"
#include "src/chunker_decode.h"
#include "src/large_pages.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace Tavrin::GaussionSplat {

// One block being decoded. Guarded by the chunker's lock, except `windows` (atomic) and each window's slice
// of block, room and keys, which its worker owns until it adds to decodedCount.
struct DecodeJob {
    Chunker::Task task;
    WindowQueue windows;
    LargeArray<float> block;           // the records, decoded in place
    std::uint64_t roomPerSplat;        // bytes; constant
    LargeArray<std::byte> room;        // ChunkData::room
    BlockRanges ranges;                // of the records decoded so far
    std::uint64_t decodedCount = 0;    // records decoded so far
    std::shared_ptr<BlockCells> cells; // counted: the records decoded so far; empty without a grid

    // recordFloats: floats of one record of the block. countsCells: the scene has a grid.
    DecodeJob(const Chunker::Task& block, std::size_t recordFloats, bool countsCells);
};

// What the workers of one pass share, guarded by the chunker's lock, a process-wide mutex.
struct DecodePass {
    // The ranges of one finished block. Entry i belongs to block i of those that this pass appended to
    // chunks.
    struct Finished {
        std::uint64_t ordinal;
        BlockRanges ranges;
    };

    std::shared_ptr<AttributeBounding> bounding;
    std::shared_ptr<BlockList> chunks;
    std::vector<Finished> finished;
    SharedBlocks<DecodeJob> blocks;
    bool countsCells = false; // the scene is split into ground cells

    DecodePass(std::shared_ptr<AttributeBounding> sharedBounding, std::shared_ptr<BlockList> blockList);
};

// Read and decode the block of a task. Widen the shared ranges by it and append its ChunkData, both under the
// chunker's lock. Then help with blocks that other workers have begun. A file that cannot be opened costs an
// ERROR line and the block. A length that is not positive ends the process with status 123.
//
// bounding->hasShcoef chooses the form of the records; the task's stride says where each starts in the file.
// The decoded block holds count records of that form without gaps, whatever the stride.
void decodeBlock(const Chunker::Task& task, DecodePass& pass);

} // namespace Tavrin::GaussionSplat
