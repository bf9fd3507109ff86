// Threads that work on one task together. They end together when one of them fails, and report progress one
// at a time.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>

namespace Tavrin::SplatThreads {

class Crew {
public:
    // Called now and then, by one worker at a time, with the units of work that are done. An exception from
    // it ends the task.
    using Progress = std::function<void(std::uint64_t done)>;

    explicit Crew(Progress progress = {}) : progress_(std::move(progress)) {}

    // Runs body(worker) for each worker below `workers` and returns when all have ended. The caller's thread
    // is one of them. Where the system has no more threads, fewer do the work. Rethrows the first exception
    // that left a body or the progress function; the other workers see isStopped.
    void run(unsigned workers, const std::function<void(unsigned worker)>& body);

    // Runs body(worker, item) once for each item below `items`, on at most `workers` workers. Items begin in
    // their order. After a failure none begins.
    void share(unsigned workers, std::uint64_t items,
               const std::function<void(unsigned worker, std::uint64_t item)>& body);

    // True when a worker has failed. A worker that sees it returns from its body.
    bool isStopped() const { return stopped_.load(std::memory_order_relaxed); }

    // `wake` is called once, by the first worker that fails. It wakes those that wait.
    void onStop(std::function<void()> wake) { wake_ = std::move(wake); }

    // Adds to the units of work that are done. Calls the progress function now and then and passes its
    // exceptions on.
    void advance(std::uint64_t units);

    // Calls the progress function with all units that are done.
    void reportEnd();

private:
    Progress progress_;
    std::atomic<bool> stopped_ = false;
    std::mutex failureMutex_;
    std::exception_ptr failure_; // the first
    std::function<void()> wake_;
    std::atomic<std::uint64_t> done_ = 0;
    std::atomic<std::chrono::steady_clock::rep> nextReport_ = 0;
    std::mutex progressMutex_;

    void work(unsigned worker, const std::function<void(unsigned)>& body) noexcept;
    void fail(std::exception_ptr failure) noexcept;
};

} // namespace Tavrin::SplatThreads
