// Sharing the last blocks of a pass: a worker that finds no block left to begin helps with one that another
// has begun.
//
// Blocks are large and few, so without help the pass would wait for the worker with the last one while the
// others idle. A block's windows are taken in turn by whoever works on it; what a pass hands on does not
// depend on who took which.
#pragma once

#include "src/blocks.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace Tavrin::GaussionSplat {

// The windows of one block of records.
//
// A turn takes several that lie one behind the other. Workers that took single windows in turn would come to
// the same untouched large page at the same time, and the system would clear one for each of them and throw
// all but one away.
struct WindowQueue {
    std::uint64_t records = 0;
    std::uint64_t turnRecords;          // at most; a whole number of windows
    std::atomic<std::uint64_t> next{0}; // the first record that nobody has taken

    explicit WindowQueue(std::uint64_t blockRecords)
        : records(blockRecords),
          turnRecords(
              std::clamp<std::uint64_t>(blockRecords / (fewestTurns * windowRecords), 1, mostWindows) *
              windowRecords) {}

    bool isEmpty() const { return next.load(std::memory_order_relaxed) >= records; }

    // Call work(first, count) for one window after the other until none is left; the number of records worked
    // on.
    template <typename Work>
    std::uint64_t takeAll(Work work) {
        std::uint64_t taken = 0;
        for (;;) {
            const std::uint64_t begin = next.fetch_add(turnRecords);
            if (begin >= records) {
                return taken;
            }
            const std::uint64_t end = std::min(records, begin + turnRecords);
            for (std::uint64_t first = begin; first < end; first += windowRecords) {
                work(first, std::min(end - first, windowRecords));
            }
            taken += end - begin;
        }
    }

private:
    // A turn of so many windows is more than a large page of the smaller records, and so many turns leave
    // little to wait for at the end of a block.
    static constexpr std::uint64_t mostWindows = 32;
    static constexpr std::uint64_t fewestTurns = 32;
};

// The blocks of one pass that are being worked on. Everything but mutex is guarded by it; the pass gives its
// own lock. A Job has a WindowQueue named windows and a task with the path of its file.
template <typename Job>
struct SharedBlocks {
    std::mutex& mutex;
    std::uint64_t waiting = 0; // blocks that no worker has begun
    std::vector<std::shared_ptr<Job>> running;

    explicit SharedBlocks(std::mutex& passMutex) : mutex(passMutex) {}

    // A worker takes a block of its own off the waiting ones.
    void beginOne() {
        const std::lock_guard lock(mutex);
        waiting -= waiting > 0 ? 1 : 0;
    }

    // Let others help with a block.
    void share(std::shared_ptr<Job> job) {
        const std::lock_guard lock(mutex);
        running.push_back(std::move(job));
    }

    // Call work(job, reader) for blocks that others have begun, as long as there are any. While blocks wait
    // to be begun it returns at once: the worker's next turn takes one of those. So it does when the file
    // cannot be opened again; the worker that began the block has it open and goes on alone.
    template <typename Work>
    void helpOthers(Work work) {
        while (const std::shared_ptr<Job> job = findOne()) {
            RecordReader reader(job->task.path);
            if (!reader.isOpen()) {
                return;
            }
            work(*job, reader);
        }
    }

private:
    std::shared_ptr<Job> findOne() {
        const std::lock_guard lock(mutex);
        std::erase_if(running, [](const std::shared_ptr<Job>& job) { return job->windows.isEmpty(); });
        return waiting > 0 || running.empty() ? nullptr : running.front();
    }
};

} // namespace Tavrin::GaussionSplat
