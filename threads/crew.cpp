#include "threads/crew.h"

#include <algorithm>
#include <system_error>
#include <thread>
#include <vector>

namespace Tavrin::SplatThreads {

void Crew::fail(std::exception_ptr failure) noexcept {
    {
        const std::lock_guard lock(failureMutex_);
        if (failure_) {
            return;
        }
        failure_ = std::move(failure);
    }
    stopped_.store(true);
    if (wake_) {
        wake_();
    }
}

void Crew::work(unsigned worker, const std::function<void(unsigned)>& body) noexcept {
    try {
        body(worker);
    } catch (...) {
        fail(std::current_exception());
    }
}

void Crew::run(unsigned workers, const std::function<void(unsigned)>& body) {
    std::vector<std::thread> threads;
    try {
        threads.reserve(workers);
        for (unsigned worker = 1; worker < workers; ++worker) {
            threads.emplace_back([this, worker, &body] { work(worker, body); });
        }
    } catch (const std::system_error&) {
        // The system gives no more threads, so those that run share the work.
    } catch (...) {
        fail(std::current_exception());
    }
    work(0, body);
    for (std::thread& thread : threads) {
        thread.join();
    }
    if (failure_) {
        std::rethrow_exception(failure_);
    }
}

void Crew::share(unsigned workers, std::uint64_t items,
                 const std::function<void(unsigned, std::uint64_t)>& body) {
    std::atomic<std::uint64_t> next = 0;
    run(static_cast<unsigned>(std::clamp<std::uint64_t>(items, 1, std::max(workers, 1u))),
        [&](unsigned worker) {
            for (;;) {
                const std::uint64_t item = next.fetch_add(1, std::memory_order_relaxed);
                if (item >= items || isStopped()) {
                    return;
                }
                body(worker, item);
            }
        });
}

void Crew::advance(std::uint64_t units) {
    constexpr std::chrono::milliseconds between(50);
    done_.fetch_add(units, std::memory_order_relaxed);
    if (!progress_) {
        return;
    }
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    if (now.count() < nextReport_.load(std::memory_order_relaxed)) {
        return;
    }
    const std::unique_lock lock(progressMutex_, std::try_to_lock);
    if (lock.owns_lock() && now.count() >= nextReport_.load(std::memory_order_relaxed)) {
        nextReport_.store((now + between).count(), std::memory_order_relaxed);
        progress_(done_.load(std::memory_order_relaxed));
    }
}

void Crew::reportEnd() {
    if (progress_) {
        progress_(done_.load(std::memory_order_relaxed));
    }
}

} // namespace Tavrin::SplatThreads
