// One pass of the chunker: what its workers share, and the body that decodes one block.
#pragma once

#include "src/chunker.h"
#include "src/chunker_decode.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace Tavrin::GaussionSplat {

// Shared by the workers under the chunk lock, a process-wide mutex.
struct ChunkPass {
    // The ranges of one finished block; entry i belongs to the i-th block that this pass appended to chunks.
    struct Finished {
        std::uint64_t ordinal;
        BlockRanges ranges;
    };

    std::shared_ptr<AttributeBounding> bounding;
    std::shared_ptr<ChunkList> chunks;
    std::vector<Finished> finished;
};

// Read and decode the block of a task, merge its ranges and append its ChunkData, both under the chunk lock.
// A file that cannot be opened costs an ERROR line and the block. A length that is not positive ends the
// process with status 123.
void decodeBlock(const Chunker::Task& task, ChunkPass& pass);

} // namespace Tavrin::GaussionSplat
