#include "src/splatheader_scan.h"

#include "src/blocks.h"
#include "src/lanes.h"
#include "src/large_pages.h"
#include "src/platform.h"
#include "src/taskpool.h"

#include <algorithm>
#include <mutex>
#include <thread>

namespace Tavrin::GaussionSplat {

namespace {

std::mutex scanMutex; // guards the shared box

// Widen the shared bounds of one axis by single-precision ones. Minimum and maximum of floats stay the same
// whether they are converted before or after.
void widenAxis(float min, float max, double& sharedMin, double& sharedMax) {
    sharedMin = sharedMin > min ? double{min} : sharedMin;
    sharedMax = max > sharedMax ? double{max} : sharedMax;
}

// Scan windows of a block until none is left. In principle visits run from 0 to count inclusive, and visit k
// reads record max(k - 1, 0), so record 0 is visited twice. The second visit cannot change a minimum or a
// maximum, so only one is made.
void scanWindows(ScanJob& job, RecordReader& reader, ScanPass& pass) {
    const SplatHeader::Task& task = job.task;
    const std::uint64_t recordFloats = task.stride / sizeof(float);
    const LargeArray<float> window =
        makeLargeArray<float>(std::min(task.count, windowRecords) * recordFloats);
    LaneRanges<4> bounds; // x, y, z, and the next value to fill the vector
    job.windows.takeAll([&](std::uint64_t first, std::uint64_t count) {
        reader.read(task.offset + first * task.stride, window.get(), count * task.stride);
        bounds.widen(window.get(), count, recordFloats);
    });
    const std::lock_guard lock(pass.blocks.mutex);
    widenAxis(bounds.min[0], bounds.max[0], pass.min.x, pass.max.x);
    widenAxis(bounds.min[1], bounds.max[1], pass.min.y, pass.max.y);
    widenAxis(bounds.min[2], bounds.max[2], pass.min.z, pass.max.z);
}

} // namespace

ScanPass::ScanPass() : blocks(scanMutex) {}

void scanBlock(const SplatHeader::Task& task, ScanPass& pass) {
    pass.blocks.beginOne();
    if (static_cast<std::int64_t>(task.length) <= 0) {
        endProcessFromWorker(-1);
    }
    if (static_cast<std::int64_t>(task.offset) < 0) {
        return; // a block has one place in the file; without it, it is zeros, and the box holds the origin
                // already
    }
    RecordReader reader(task.path);
    if (!reader.isOpen()) {
        return;
    }
    auto job = std::make_shared<ScanJob>(task);
    pass.blocks.share(job);
    scanWindows(*job, reader, pass);
    pass.blocks.helpOthers(
        [&](ScanJob& other, RecordReader& otherReader) { scanWindows(other, otherReader, pass); });
}

std::tuple<Vector3, Vector3> SplatHeader::computeBBox(std::string path, std::int64_t vertexCount,
                                                      std::int32_t headerLength) {
    ScanPass pass;
    pass.blocks.waiting = countBlocks(vertexCount);
    TaskPool<Task> pool(std::thread::hardware_concurrency(),
                        [&pass](const std::shared_ptr<Task>& task) { scanBlock(*task, pass); });
    forEachBlock(vertexCount, [&](std::uint64_t first, std::uint64_t count) {
        pool.enqueue(std::make_shared<Task>(Task{
            .path = path,
            .stride = scanStride,
            .count = count,
            .first = first,
            .offset = first * scanStride + static_cast<std::uint64_t>(std::int64_t{headerLength}),
            .length = count * scanStride,
        }));
    });
    pool.drain();
    return {pass.min, pass.max};
}

} // namespace Tavrin::GaussionSplat
