#include "src/chunker.h"

#include "src/chunker_decode.h"
#include "src/chunker_pass.h"
#include "src/platform.h"
#include "src/runlog.h"
#include "src/splatheader_blocks.h"
#include "src/taskpool.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace Tavrin::GaussionSplat {

namespace {

constexpr const char* sourcePath = "src/chunker";

std::mutex chunkMutex; // the chunk lock: guards the shared ranges, the chunk list and what belongs to them

} // namespace

void decodeBlock(const Chunker::Task& task, ChunkPass& pass) {
    if (task.length < 1) {
        logError("invalid malloc size: " + std::to_string(static_cast<std::int64_t>(task.length)), sourcePath,
                 55);
        endProcessFromWorker(123);
    }
    RecordReader reader(task.path);
    if (!reader.isOpen()) {
        logError("file cannot open ", sourcePath, 61);
        return;
    }
    const bool hasShcoef = pass.bounding->hasShcoef;
    const std::size_t recordFloats = recordLayout(hasShcoef).floats;
    LargeArray<float> block = makeLargeArray<float>(task.length / sizeof(float));
    BlockRanges ranges;
    // Each window is read straight into its place in the block and decoded there while it is in the cache.
    // Record 0 is visited twice, from the same input and with the same result, so one visit is made.
    for (std::uint64_t done = 0; done < task.count;) {
        const std::uint64_t count = std::min(task.count - done, windowRecords);
        float* const window = block.get() + done * recordFloats;
        reader.read(task.offset + done * task.stride, window, count * task.stride);
        decodeRecords(window, count, hasShcoef, ranges);
        done += count;
    }
    auto chunk = std::make_shared<ChunkData>();
    chunk->splatCount = static_cast<std::uint32_t>(task.count);
    chunk->level = task.level;
    settleZeroBounds(block.get(), task.count, hasShcoef, ranges);

    const std::lock_guard lock(chunkMutex);
    mergeRanges(*pass.bounding, ranges, hasShcoef);
    pass.finished.push_back({task.ordinal, ranges});
    pass.chunks->push_back(chunk);
    chunk->data = block.release();
}

namespace {

// The workers finish in any order. Handing the blocks on in file order, and merging their ranges once more in
// that order, makes the result independent of the threads: the second merge can differ from the running one
// in the sign of a zero bound alone, where the first of two equal bounds stays.
void settleOrder(ChunkPass& pass, const AttributeBounding& before) {
    std::vector<std::size_t> order(pass.finished.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return pass.finished[a].ordinal < pass.finished[b].ordinal;
    });
    const std::size_t kept =
        pass.chunks->size() - order.size(); // entries that were in the list before this pass
    ChunkList sorted(pass.chunks->begin(), pass.chunks->begin() + static_cast<std::ptrdiff_t>(kept));
    AttributeBounding ranges = before;
    for (const std::size_t i : order) {
        sorted.push_back((*pass.chunks)[kept + i]);
        mergeRanges(ranges, pass.finished[i].ranges, ranges.hasShcoef);
    }
    *pass.chunks = std::move(sorted);
    *pass.bounding = std::move(ranges);
}

} // namespace

void Chunker::doChunking(std::shared_ptr<AttributeBounding> sharedBounding, std::shared_ptr<ChunkList> chunks,
                         std::string output) {
    bounding = sharedBounding;
    name = std::move(output);
    logInfo("Start chunking... ", sourcePath, 37);
    const AttributeBounding before = *bounding;
    ChunkPass pass{.bounding = bounding, .chunks = chunks, .finished = {}};
    {
        TaskPool<Task> pool(threadCount,
                            [&pass](const std::shared_ptr<Task>& task) { decodeBlock(*task, pass); });
        std::uint64_t ordinal = 0;
        for (const SplatHeader& header : headers) {
            const std::uint64_t stride = header.recordSize;
            forEachBlock(header.vertexCount, [&](std::uint64_t first, std::uint64_t count) {
                pool.enqueue(std::make_shared<Task>(Task{
                    .path = header.path,
                    .stride = header.recordSize,
                    .count = count,
                    .first = first,
                    .offset = stride * first + static_cast<std::uint64_t>(header.headerEnd),
                    .length = stride * count,
                    .level = header.level,
                    .ordinal = ordinal++,
                }));
            });
        }
        pool.drain();
    }
    settleOrder(pass, before);
    logInfo("chunking finished . ", sourcePath, 342);
}

void releaseChunks(ChunkList& chunks) noexcept {
    for (std::shared_ptr<ChunkData>& chunk : chunks) {
        if (chunk) {
            freeLarge(chunk->data);
            chunk.reset();
        }
    }
}

} // namespace Tavrin::GaussionSplat
