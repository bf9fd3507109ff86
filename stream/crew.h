// The workers of one pass. They end together when one of them fails, and report progress one at a time.
#pragma once

#include "stream/conversion.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>

namespace Tavrin::SplatStream {

// A scene cut into windows, handed out in order.
struct Windows {
    std::uint64_t records = 0;       // of the whole scene
    std::uint64_t windowRecords = 1; // of a window; the last may have fewer

    std::uint64_t count() const { return records / windowRecords + (records % windowRecords != 0 ? 1 : 0); }
    std::uint64_t first(std::uint64_t window) const { return window * windowRecords; }
    std::uint64_t size(std::uint64_t window) const {
        return records - first(window) < windowRecords ? records - first(window) : windowRecords;
    }
};

class Crew {
public:
    explicit Crew(const Settings& settings) : settings_(settings) {}

    // Runs body(worker) for each worker below `workers` and returns when all have ended. The caller's thread
    // is one of them. Where the system has no more threads, fewer do the work. Rethrows the first exception
    // that left a body or the progress function; the other workers see isStopped.
    void run(unsigned workers, const std::function<void(unsigned)>& body);

    // A worker has failed. Every worker that sees it returns from its body.
    bool isStopped() const { return stopped_.load(std::memory_order_relaxed); }

    // Called once, by the first worker that fails. It wakes those that wait.
    void onStop(std::function<void()> wake) { wake_ = std::move(wake); }

    // Reports this many more splats done. Calls settings.progress now and then and passes its exceptions on.
    void advance(std::uint64_t splats);

    // Calls settings.progress with the number of all splats done.
    void reportEnd();

private:
    const Settings& settings_;
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

} // namespace Tavrin::SplatStream
