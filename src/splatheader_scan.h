// The bounding-box scan of one block, without the pool that runs it.
#pragma once

#include "src/blocks_share.h"
#include "src/splatheader.h"

namespace Tavrin::GaussionSplat {

// One block being scanned.
struct ScanJob {
    SplatHeader::Task task;
    WindowQueue windows;

    explicit ScanJob(const SplatHeader::Task& block) : task(block), windows(block.count) {}
};

// One scan: its box and the blocks being worked on. The box always holds the origin. Both are guarded by the
// lock of all scans, a process-wide mutex.
struct ScanPass {
    Vector3 min;
    Vector3 max;
    SharedBlocks<ScanJob> blocks;

    ScanPass();
};

// Widen the pass's box by the positions of the task's records, then help with blocks that other workers have
// begun. A file that cannot be opened contributes nothing. Neither does a block that starts before the file,
// even in part. A length that is not positive, read as a signed number, ends the process with status -1.
void scanBlock(const SplatHeader::Task& task, ScanPass& pass);

} // namespace Tavrin::GaussionSplat
