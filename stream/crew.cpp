#include "stream/crew.h"

#include <limits>
#include <system_error>
#include <thread>
#include <vector>

namespace Tavrin::SplatStream {

void Crew::fail(std::exception_ptr failure) noexcept {
    {
        const std::lock_guard lock(m_failureMutex);
        if (m_failure) {
            return;
        }
        m_failure = std::move(failure);
    }
    m_stopped.store(true);
    if (m_wake) {
        m_wake();
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
    if (m_failure) {
        std::rethrow_exception(m_failure);
    }
}

void Crew::advance(std::uint64_t splats) {
    constexpr std::chrono::milliseconds between(50);
    m_done.fetch_add(splats, std::memory_order_relaxed);
    if (!m_settings.progress) {
        return;
    }
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    if (now.count() < m_nextReport.load(std::memory_order_relaxed)) {
        return;
    }
    const std::unique_lock lock(m_progressMutex, std::try_to_lock);
    if (lock.owns_lock() && now.count() >= m_nextReport.load(std::memory_order_relaxed)) {
        m_nextReport.store((now + between).count(), std::memory_order_relaxed);
        m_settings.progress(m_done.load(std::memory_order_relaxed));
    }
}

void Crew::reportEnd() {
    if (m_settings.progress) {
        m_settings.progress(m_done.load(std::memory_order_relaxed));
    }
}

} // namespace Tavrin::SplatStream
