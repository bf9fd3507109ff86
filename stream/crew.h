// The workers of one pass: they end together, whoever of them fails, and one at a time says how far it is.
#pragma once

#include "stream/conversion.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>

namespace Tavrin::SplatStream {

// A scene cut into windows, which are handed out in their order.
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
    // is one of them; where the system has no more threads to give, fewer do the work. Rethrows the first
    // exception that left a body or the progress function; the others see isStopped.
    void run(unsigned workers, const std::function<void(unsigned)>& body);

    // Somebody failed: whoever sees it returns from its body.
    bool isStopped() const { return stopped_.load(std::memory_order_relaxed); }

    // Called once when somebody fails, by whoever does: wakes those who wait.
    void onStop(std::function<void()> wake) { wake_ = std::move(wake); }

    // So many splats more are done. Calls settings.progress now and then, whose exceptions leave.
    void advance(std::uint64_t splats);

    // Calls settings.progress with all that is done.
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
