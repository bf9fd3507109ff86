#include "src/chunker.h"

#include "src/blocks.h"
#include "src/chunker_decode.h"
#include "src/chunker_pass.h"
#include "src/large_pages.h"
#include "src/platform.h"
#include "src/runlog.h"
#include "src/taskpool.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace Tavrin::GaussionSplat {

namespace {

constexpr const char* sourcePath = "src/chunker";

std::mutex chunkerMutex; // the chunker's lock; chunker_pass.h says what it guards

// Null if there is no memory. Only for arrays that the conversion can do without.
template <typename Element>
LargeArray<Element> tryLargeArray(std::uint64_t count) {
    try {
        return makeLargeArray<Element>(count);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// Bytes of the 288-byte record not yet covered by the decoded splat and its key.
std::uint64_t roomForOne(std::size_t recordFloats, bool countsCells) {
    const std::uint64_t covered = recordFloats * sizeof(float) + (countsCells ? sizeof(std::uint32_t) : 0);
    return indexedSplatBytes - std::min(indexedSplatBytes, covered);
}

LargeArray<std::byte> makeRoom(std::uint64_t bytes) {
    const std::uint64_t whole = bytes / largePage * largePage;
    return whole > 0 && largePagesMove() ? tryLargeArray<std::byte>(whole) : nullptr;
}

} // namespace

DecodeJob::DecodeJob(const Chunker::Task& blockTask, std::size_t recordFloats, bool countsCells)
    : task(blockTask), windows(blockTask.count), block(makeLargeArray<float>(blockTask.count * recordFloats)),
      roomPerSplat(roomForOne(recordFloats, countsCells)), room(makeRoom(blockTask.count * roomPerSplat)),
      cells(countsCells ? std::make_shared<BlockCells>() : nullptr) {
    if (cells) {
        cells->grid = chunkGrid;
        cells->keys = tryLargeArray<std::uint32_t>(task.count);
    }
}

DecodePass::DecodePass(std::shared_ptr<AttributeBounding> sharedBounding,
                       std::shared_ptr<BlockList> blockList)
    : bounding(std::move(sharedBounding)), chunks(std::move(blockList)), blocks(chunkerMutex) {}

namespace {

// Widen the shared ranges by a block that is completely decoded, and hand it on. The caller holds the
// chunker's lock, which guards the list that the block is appended to.
void finishBlock(DecodeJob& job, DecodePass& pass) {
    const bool hasCoefficients = pass.bounding->hasShcoef;
    settleZeroBounds(job.block.get(), job.task.count, hasCoefficients, job.ranges);
    widen(*pass.bounding, job.ranges, hasCoefficients);
    auto block = std::make_shared<ChunkData>();
    block->splatCount = static_cast<std::uint32_t>(job.task.count);
    block->level = job.task.level;
    pass.finished.push_back({job.task.ordinal, job.ranges});
    pass.chunks->push_back(block);
    block->data = job.block.release();
    block->cells = std::move(job.cells);
    block->room = std::move(job.room);
}

// Find the cells of a window's records. The window starts at record `first` of the block.
void findCells(const float* window, std::size_t recordFloats, std::uint64_t first, std::uint64_t count,
               BlockCells& cells, CellCounter& counter) {
    std::uint32_t own[windowRecords];
    std::uint32_t* const keys = cells.keys ? cells.keys.get() + first : own;
    cellKeys(window, recordFloats, count, cells.grid, keys);
    for (std::uint64_t i = 0; i < count; ++i) {
        counter.add(keys[i], 1);
    }
}

// Pre-fault the pages of the room that begin in the part of a window's records. So each page belongs to one
// window.
void touchRoom(const DecodeJob& job, std::uint64_t first, std::uint64_t count) {
    constexpr std::uint64_t smallestPage = 4096;
    const std::uint64_t size = job.room.get_deleter().bytes;
    const auto firstPageFrom = [size](std::uint64_t at) {
        return std::min(size, (at + largePage - 1) / largePage * largePage);
    };
    const std::uint64_t end = firstPageFrom((first + count) * job.roomPerSplat);
    for (std::uint64_t at = firstPageFrom(first * job.roomPerSplat); at < end; at += smallestPage) {
        const_cast<volatile std::byte&>(job.room[at]) = std::byte{0};
    }
}

// Read records of a task into their place. One check serves the whole block: if it starts before the file,
// all of it is zeros. The form of the records gives their size, the task's stride their positions in the
// file. Bytes beyond the task's length are zeros.
void readRecords(RecordReader& reader, const Chunker::Task& task, std::uint64_t first, std::uint64_t count,
                 std::size_t recordFloats, float* records) {
    const std::uint64_t recordBytes = recordFloats * sizeof(float);
    if (static_cast<std::int64_t>(task.offset) < 0) {
        std::fill_n(records, count * recordFloats, 0.0f);
        return;
    }
    if (task.stride == recordBytes) {
        reader.read(task.offset + first * task.stride, records, count * recordBytes);
        return;
    }
    for (std::uint64_t i = 0; i < count; ++i) {
        float* const record = records + i * recordFloats;
        const std::uint64_t at = (first + i) * task.stride;
        std::fill_n(record, recordFloats, 0.0f);
        reader.read(task.offset + at, record, std::min(recordBytes, task.length - std::min(task.length, at)));
    }
}

// Decode windows of a block until none is left. The worker that decodes the last one finishes the block. Each
// window is read straight into its place and decoded there while it is in the cache. The bytes are those of
// one read of the whole block. A second visit of record 0 would change nothing, so one is made.
void decodeWindows(DecodeJob& job, RecordReader& reader, DecodePass& pass) {
    const Chunker::Task& task = job.task;
    const bool hasCoefficients = pass.bounding->hasShcoef;
    const std::size_t recordFloats = recordLayout(hasCoefficients).floats;
    BlockRanges ranges;
    // Not derived from job.cells: finishing the block moves it away, and a worker that comes to help may find
    // the block finished.
    const auto counter = pass.countsCells ? std::make_unique<CellCounter>() : nullptr;
    const std::uint64_t decoded = job.windows.takeAll([&](std::uint64_t first, std::uint64_t count) {
        float* const window = job.block.get() + first * recordFloats;
        readRecords(reader, task, first, count, recordFloats, window);
        decodeRecords(window, count, hasCoefficients, ranges);
        if (counter) {
            findCells(window, recordFloats, first, count, *job.cells, *counter);
        }
        if (job.room) {
            touchRoom(job, first, count);
        }
    });
    const std::lock_guard lock(chunkerMutex);
    widen(job.ranges, ranges);
    for (std::size_t i = 0; counter && i < counter->counts().size(); ++i) {
        job.cells->counter.add(counter->counts()[i].key, counter->counts()[i].splats);
    }
    job.decodedCount += decoded;
    if (decoded > 0 && job.decodedCount == task.count) {
        finishBlock(job, pass);
    }
}

} // namespace

void decodeBlock(const Chunker::Task& task, DecodePass& pass) {
    pass.blocks.beginOne();
    const auto length = static_cast<std::int64_t>(task.length);
    if (length < 1) {
        logError("invalid malloc size: " + std::to_string(length), sourcePath, 55);
        endProcessFromWorker(123);
    }
    RecordReader reader(task.path);
    if (!reader.isOpen()) {
        logError("file cannot open ", sourcePath, 61);
        return;
    }
    const std::size_t recordFloats = recordLayout(pass.bounding->hasShcoef).floats;
    auto job = std::make_shared<DecodeJob>(task, recordFloats, pass.countsCells);
    pass.blocks.share(job);
    decodeWindows(*job, reader, pass);
    pass.blocks.helpOthers(
        [&](DecodeJob& other, RecordReader& otherReader) { decodeWindows(other, otherReader, pass); });
}

namespace {

// Workers finish in any order. Here the blocks are sorted into file order and the ranges widened once more
// in that order. So the result does not depend on the threads. Of two equal bounds the first stays, so the
// second time can differ from the first only in the sign of a zero bound.
void settleOrder(DecodePass& pass, const AttributeBounding& before) {
    std::vector<std::size_t> order(pass.finished.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return pass.finished[a].ordinal < pass.finished[b].ordinal;
    });
    const std::size_t kept =
        pass.chunks->size() - order.size(); // entries that were in the list before this pass
    BlockList sorted(pass.chunks->begin(), pass.chunks->begin() + static_cast<std::ptrdiff_t>(kept));
    AttributeBounding ranges = before;
    for (const std::size_t i : order) {
        sorted.push_back((*pass.chunks)[kept + i]);
        widen(ranges, pass.finished[i].ranges, ranges.hasShcoef);
    }
    *pass.chunks = std::move(sorted);
    *pass.bounding = std::move(ranges);
}

} // namespace

void Chunker::doChunking(std::shared_ptr<AttributeBounding> sharedBounding, std::shared_ptr<BlockList> chunks,
                         std::string output) {
    bounding = sharedBounding;
    name = std::move(output);
    logInfo(LogLines::chunkingStarts);
    const AttributeBounding before = *bounding;
    DecodePass pass(bounding, chunks);
    std::uint64_t splats = 0;
    for (const SplatHeader& header : headers) {
        pass.blocks.waiting += countBlocks(header.vertexCount);
        splats += static_cast<std::uint64_t>(header.vertexCount);
    }
    pass.countsCells = splats > singleCellSplats;
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
    logInfo(LogLines::chunkingEnds);
}

void releaseBlocks(BlockList& chunks, std::uint32_t recordSize) noexcept {
    for (std::shared_ptr<ChunkData>& block : chunks) {
        if (block) {
            freeLarge(block->data, std::uint64_t{block->splatCount} * recordSize);
            block.reset();
        }
    }
}

} // namespace Tavrin::GaussionSplat
