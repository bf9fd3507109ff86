#include "src/splatheader_scan.h"

#include "src/platform.h"
#include "src/splatheader_blocks.h"
#include "src/taskpool.h"

#include <algorithm>
#include <limits>
#include <mutex>
#include <thread>

namespace Tavrin::GaussionSplat {

namespace {

std::mutex scanMutex; // guards the merge into the shared box

// Bounds of one axis in single precision: the minimum and maximum of floats do not change by widening them
// first.
struct AxisBounds {
    float min = std::numeric_limits<float>::infinity();
    float max = -std::numeric_limits<float>::infinity();

    // Strict comparisons: NaN never replaces a bound.
    void fold(float value) {
        min = min > value ? value : min;
        max = value > max ? value : max;
    }

    void mergeInto(double& sharedMin, double& sharedMax) const {
        sharedMin = sharedMin > min ? double{min} : sharedMin;
        sharedMax = max > sharedMax ? double{max} : sharedMax;
    }
};

} // namespace

void scanBlock(const SplatHeader::Task& task, ScanBox& box) {
    if (task.length == 0) {
        endProcessFromWorker(-1);
    }
    RecordReader reader(task.path);
    if (!reader.isOpen()) {
        return;
    }
    const std::uint64_t recordFloats = task.stride / sizeof(float);
    const LargeArray<float> window =
        makeLargeArray<float>(std::min(task.count, windowRecords) * recordFloats);
    AxisBounds x;
    AxisBounds y;
    AxisBounds z;
    for (std::uint64_t done = 0; done < task.count;) {
        const std::uint64_t count = std::min(task.count - done, windowRecords);
        reader.read(task.offset + done * task.stride, window.get(), count * task.stride);
        // Record 0 is visited twice: the visits run from 0 to count inclusive, visit k reading record max(k -
        // 1, 0). For a minimum and a maximum the second visit changes nothing, so one is made.
        for (const float* record = window.get(); record != window.get() + count * recordFloats;
             record += recordFloats) {
            x.fold(record[0]);
            y.fold(record[1]);
            z.fold(record[2]);
        }
        done += count;
    }
    const std::lock_guard lock(scanMutex);
    x.mergeInto(box.min.x, box.max.x);
    y.mergeInto(box.min.y, box.max.y);
    z.mergeInto(box.min.z, box.max.z);
}

std::tuple<Vector3, Vector3> SplatHeader::computeBBox(std::string path, std::int64_t vertexCount,
                                                      std::int32_t headerLength) {
    ScanBox box;
    TaskPool<Task> pool(std::thread::hardware_concurrency(),
                        [&box](const std::shared_ptr<Task>& task) { scanBlock(*task, box); });
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
    return {box.min, box.max};
}

} // namespace Tavrin::GaussionSplat
