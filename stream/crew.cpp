#include "stream/crew.h"

#include <system_error>
#include <thread>
#include <vector>

namespace Tavrin::SplatStream {

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
        // The system gives no more threads: those that run share the work.
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

void Crew::advance(std::uint64_t splats) {
    constexpr std::chrono::milliseconds between(50);
    done_.fetch_add(splats, std::memory_order_relaxed);
    if (!settings_.progress) {
        return;
    }
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    if (now.count() < nextReport_.load(std::memory_order_relaxed)) {
        return;
    }
    const std::unique_lock lock(progressMutex_, std::try_to_lock);
    if (lock.owns_lock() && now.count() >= nextReport_.load(std::memory_order_relaxed)) {
        nextReport_.store((now + between).count(), std::memory_order_relaxed);
        settings_.progress(done_.load(std::memory_order_relaxed));
    }
}

void Crew::reportEnd() {
    if (settings_.progress) {
        settings_.progress(done_.load(std::memory_order_relaxed));
    }
}

} // namespace Tavrin::SplatStream
