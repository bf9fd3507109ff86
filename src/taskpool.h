// A short-lived pool of worker threads that runs one body over many tasks.
//
// Each pass of the converter builds its own pool, fills its queue, drains it and destroys it. Workers poll
// the queue and sleep for taskPoolPause after every look at it, even after one that found a task. The pacing
// is deliberate. Tasks are coarse, so it costs little.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace Tavrin::GaussionSplat {

inline constexpr std::chrono::milliseconds taskPoolPause{10};

template <typename Task>
struct TaskPool {
    std::uint64_t threadCount;
    std::deque<std::shared_ptr<Task>> queue;
    std::function<void(std::shared_ptr<Task>)> runner;
    std::vector<std::thread> threads;
    std::atomic<bool> stopping{false};
    std::atomic<std::uint32_t> activeCount{0}; // tasks being run at this moment; informational
    std::mutex mutex;                          // guards queue

    // Starts the workers, each running body over the tasks that it takes. Any number of calls of body run at
    // once. An exception that escapes body ends the process. Throws std::system_error when a thread cannot be
    // started; the threads already started are joined first.
    TaskPool(std::uint64_t workers, std::function<void(std::shared_ptr<Task>)> body)
        : threadCount(workers), runner(std::move(body)) {
        try {
            for (std::uint64_t i = 0; i < threadCount; ++i) {
                threads.emplace_back([this] { work(); });
            }
        } catch (...) {
            stopAndJoin();
            throw;
        }
    }

    TaskPool(const TaskPool&) = delete;
    TaskPool& operator=(const TaskPool&) = delete;

    ~TaskPool() { stopAndJoin(); }

    void enqueue(std::shared_ptr<Task> task) {
        const std::lock_guard lock(mutex);
        queue.push_back(std::move(task));
    }

    // Returns when every task has been run: the queue is empty and every worker has ended. Waits forever when
    // there is a task in the queue and no worker.
    void drain() {
        while (queueSize() != 0) {
            pause();
        }
        stopAndJoin();
    }

private:
    static void pause() { std::this_thread::sleep_for(taskPoolPause); }

    std::size_t queueSize() {
        const std::lock_guard lock(mutex);
        return queue.size();
    }

    void stopAndJoin() {
        if (stopping.exchange(true)) {
            return;
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    void work() {
        for (;;) {
            std::shared_ptr<Task> task;
            {
                const std::lock_guard lock(mutex);
                if (queue.empty() && stopping) {
                    return;
                }
                if (!queue.empty()) {
                    task = queue.front();
                    queue.pop_front();
                    if (task) {
                        ++activeCount;
                    }
                }
            }
            if (task) {
                runner(task);
                --activeCount;
            }
            pause();
        }
    }
};

} // namespace Tavrin::GaussionSplat
