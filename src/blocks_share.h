// Shares the last blocks of a pass: a worker that finds no block left to begin helps another worker with its
// block.
//
// Blocks are large and few. Without help the others would idle while one worker finishes the last block.
// Workers take the windows of a block in turn. The results of a pass do not depend on who took which.
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
// A worker takes a stretch: several adjacent windows. If workers took single windows, several would touch the
// same new huge page at the same time. The system would then clear one page for each of them and discard all
// but one.
struct WindowQueue {
    std::uint64_t records = 0;
    std::uint64_t stretchRecords;       // at most; a whole number of windows
    std::atomic<std::uint64_t> next{0}; // the first record that nobody has taken

    explicit WindowQueue(std::uint64_t blockRecords)
        : records(blockRecords),
          stretchRecords(
              std::clamp<std::uint64_t>(blockRecords / (fewestStretches * windowRecords), 1, mostWindows) *
              windowRecords) {}

    bool isEmpty() const { return next.load(std::memory_order_relaxed) >= records; }

    // Call work(first, count) for window after window until none is left. Returns the number of records
    // worked on.
    template <typename Work>
    std::uint64_t takeAll(Work work) {
        std::uint64_t taken = 0;
        for (;;) {
            const std::uint64_t begin = next.fetch_add(stretchRecords);
            if (begin >= records) {
                return taken;
            }
            const std::uint64_t end = std::min(records, begin + stretchRecords);
            for (std::uint64_t first = begin; first < end; first += windowRecords) {
                work(first, std::min(end - first, windowRecords));
            }
            taken += end - begin;
        }
    }

private:
    // mostWindows makes a stretch longer than a huge page of the smaller records. fewestStretches leaves
    // little to wait for at the end of a block.
    static constexpr std::uint64_t mostWindows = 32;
    static constexpr std::uint64_t fewestStretches = 32;
};

// The blocks of one pass that are being worked on. The pass's own mutex guards every other member. A Job has
// a WindowQueue named windows, and a task with the path of its file.
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

    // Call work(job, reader) for blocks that others have begun, as long as there are any. Returns at once
    // while blocks wait to be begun: the worker takes one of those next. Returns also when the
    // file cannot be opened again: the worker that began the block has it open and goes on alone.
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
