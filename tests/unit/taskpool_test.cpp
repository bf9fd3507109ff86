#include "src/taskpool.h"

#include "tests/support/deathtest.h"
#include "tests/support/fields.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <numeric>
#include <stdexcept>
#include <system_error>

#if !defined(_WIN32)
#include <csignal>

#include <unistd.h>
#endif

namespace Tavrin::GaussionSplat {

namespace {

struct Job {
    int number = 0;
};
using JobPool = TaskPool<Job>;
using JobPointer = std::shared_ptr<Job>;

JobPointer job(int number) {
    return std::make_shared<Job>(Job{number});
}

void ignore(const JobPointer&) {}

// The numbers of the jobs that were run, in the order of their start.
struct Record {
    std::mutex mutex;
    std::vector<int> numbers;

    void add(const JobPointer& task) {
        const std::lock_guard lock(mutex);
        numbers.push_back(task->number);
    }
};

std::vector<int> upTo(int count) {
    std::vector<int> numbers(static_cast<std::size_t>(count));
    std::iota(numbers.begin(), numbers.end(), 0);
    return numbers;
}

// Returns when `count` threads have called it. Not std::barrier: that of g++ 12 loses wake-ups on systems
// without futexes, such as Windows, and then waits forever.
void arriveAndWait(std::atomic<std::uint32_t>& arrived, std::uint32_t count) {
    ++arrived;
    while (arrived < count) {
        std::this_thread::yield();
    }
}

TEST(TaskPool, DeclaresItsFieldsInOrder) {
    JobPool pool(0, ignore);
    support::expectDeclaredInOrder({{"threadCount", pool.threadCount},
                                    {"queue", pool.queue},
                                    {"runner", pool.runner},
                                    {"threads", pool.threads},
                                    {"stopping", pool.stopping},
                                    {"activeCount", pool.activeCount},
                                    {"mutex", pool.mutex}});
    static_assert(sizeof(pool.threadCount) == 8 && sizeof(pool.activeCount) == 4 &&
                  sizeof(pool.stopping) == 1);
}

TEST(TaskPool, StartsItsThreadsBeforeAnyTaskIsThere) {
    JobPool pool(3, ignore);
    EXPECT_EQ(pool.threadCount, 3u);
    EXPECT_EQ(pool.threads.size(), 3u);
    EXPECT_FALSE(pool.stopping);
    EXPECT_EQ(pool.activeCount, 0u);
    EXPECT_TRUE(pool.queue.empty());
    pool.drain();
    EXPECT_TRUE(pool.stopping);
}

TEST(TaskPool, OneThreadRunsTheTasksInTheOrderOfTheQueue) {
    Record record;
    JobPool pool(1, [&](const JobPointer& task) { record.add(task); });
    for (int i = 0; i < 20; ++i) {
        pool.enqueue(job(i));
    }
    pool.drain();
    EXPECT_EQ(record.numbers, upTo(20));
    EXPECT_TRUE(pool.queue.empty());
}

TEST(TaskPool, ManyThreadsRunEachTaskOnce) {
    Record record;
    JobPool pool(8, [&](const JobPointer& task) { record.add(task); });
    for (int i = 0; i < 200; ++i) {
        pool.enqueue(job(i));
    }
    pool.drain();
    std::sort(record.numbers.begin(), record.numbers.end());
    EXPECT_EQ(record.numbers, upTo(200));
}

// Each task waits until all of them run, so a pool that ran them one after the other would never end.
TEST(TaskPool, ThreadsRunTasksAtTheSameTime) {
    constexpr std::uint32_t count = 4;
    std::atomic<std::uint32_t> running{0};
    std::atomic<std::uint32_t> measured{0};
    std::vector<std::uint32_t> active(count);
    JobPool pool(count, [&](const JobPointer& task) {
        arriveAndWait(running, count);
        active.at(static_cast<std::size_t>(task->number)) = pool.activeCount;
        arriveAndWait(measured, count);
    });
    for (int i = 0; i < static_cast<int>(count); ++i) {
        pool.enqueue(job(i));
    }
    pool.drain();
    EXPECT_EQ(active, std::vector<std::uint32_t>(count, count));
    EXPECT_EQ(pool.activeCount, 0u);
}

// Draining waits until the queue is empty, and for running tasks by joining their threads.
TEST(TaskPool, DrainWaitsForTheTaskThatIsStillRunning) {
    std::atomic<bool> taken{false};
    std::atomic<bool> release{false};
    std::atomic<bool> finished{false};
    JobPool pool(1, [&](const JobPointer&) {
        taken = true;
        while (!release) {
            std::this_thread::yield();
        }
        finished = true;
    });
    pool.enqueue(job(0));
    while (!taken) {
        std::this_thread::yield();
    }
    std::thread releaser([&] {
        while (!pool.stopping) {
            std::this_thread::yield();
        }
        release = true;
    });
    pool.drain();
    EXPECT_TRUE(finished);
    releaser.join();
}

TEST(TaskPool, TasksMayBeQueuedWhileOthersRun) {
    Record record;
    std::atomic<int> started{0};
    JobPool pool(2, [&](const JobPointer& task) {
        record.add(task);
        ++started;
    });
    for (int i = 0; i < 10; ++i) {
        pool.enqueue(job(i));
        while (started <= i) { // queue the next task after the one before has run
            std::this_thread::yield();
        }
    }
    pool.drain();
    EXPECT_EQ(record.numbers, upTo(10));
}

TEST(TaskPool, DrainingWithoutTasksReturns) {
    for (const std::uint64_t threads : {1u, 4u}) {
        JobPool pool(threads, ignore);
        pool.drain();
        EXPECT_FALSE(pool.threads.front().joinable());
    }
}

TEST(TaskPool, NoThreadsAndNoTasksDrainAtOnce) {
    JobPool pool(0, ignore);
    EXPECT_TRUE(pool.threads.empty());
    pool.drain();
    EXPECT_TRUE(pool.stopping);
}

TEST(TaskPool, DrainingTwiceJoinsOnce) {
    JobPool pool(2, ignore);
    pool.enqueue(job(0));
    pool.drain();
    EXPECT_NO_THROW(pool.drain());
} // and destroying it does not join again

TEST(TaskPool, DestroyingAnUndrainedPoolRunsWhatIsQueued) {
    Record record;
    {
        JobPool pool(1, [&](const JobPointer& task) { record.add(task); });
        for (int i = 0; i < 5; ++i) {
            pool.enqueue(job(i));
        }
    }
    EXPECT_EQ(record.numbers, upTo(5));
}

TEST(TaskPool, DestroyingAPoolReleasesWhatItHolds) {
    const JobPointer task = job(1);
    const auto captured = std::make_shared<int>(0);
    {
        JobPool pool(1, [captured](const JobPointer&) {});
        pool.enqueue(task);
        pool.drain();
        EXPECT_EQ(task.use_count(), 1); // the worker has dropped its pointer
        EXPECT_GT(captured.use_count(), 1);
    }
    EXPECT_EQ(captured.use_count(), 1);
}

TEST(TaskPool, AnEmptyPointerIsTakenAndNotRun) {
    Record record;
    JobPool pool(1, [&](const JobPointer& task) { record.add(task); });
    pool.enqueue(nullptr);
    pool.enqueue(job(0));
    pool.enqueue(nullptr);
    pool.drain();
    EXPECT_EQ(record.numbers, upTo(1));
    EXPECT_EQ(pool.activeCount, 0u);
}

// The contract states a lower bound: a worker pauses ten milliseconds after every task. A slow machine only
// makes the gap longer.
TEST(TaskPool, AWorkerPausesAfterEveryTask) {
    EXPECT_EQ(taskPoolPause, std::chrono::milliseconds(10));
    std::vector<std::chrono::steady_clock::time_point> starts;
    JobPool pool(1, [&](const JobPointer&) { starts.push_back(std::chrono::steady_clock::now()); });
    for (int i = 0; i < 4; ++i) {
        pool.enqueue(job(i));
    }
    pool.drain();
    ASSERT_EQ(starts.size(), 4u);
#if defined(_WIN32)
    constexpr auto least = taskPoolPause / 2; // on Windows a sleep may end early, at a tick of the timer
#else
    constexpr auto least = taskPoolPause;
#endif
    for (std::size_t i = 1; i < starts.size(); ++i) {
        EXPECT_GE(starts[i] - starts[i - 1], least);
    }
}

// Pools of different sizes, and tasks that take from no time to twice the pause.
TEST(TaskPool, StressWithTasksOfRandomLength) {
    for (int round = 0; round < 12; ++round) {
        Record record;
        {
            JobPool pool(static_cast<std::uint64_t>(round % 6 + 1), [&](const JobPointer& task) {
                std::this_thread::sleep_for(std::chrono::microseconds(task->number * 7919 % 20000));
                record.add(task);
            });
            for (int i = 0; i < 5 * (round % 6 + 1); ++i) {
                pool.enqueue(job(i));
            }
            if (round % 2 == 0) {
                pool.drain();
            }
        }
        std::sort(record.numbers.begin(), record.numbers.end());
        EXPECT_EQ(record.numbers, upTo(5 * (round % 6 + 1)));
    }
}

#if !defined(_WIN32)

void runOneJob(JobPool& pool) {
    pool.enqueue(job(0));
    pool.drain();
}

TEST(TaskPoolDeathTest, AnEmptyRunnerEndsTheProcess) {
    EXPECT_PROCESS_END(
        {
            JobPool pool(1, nullptr);
            runOneJob(pool);
        },
        testing::KilledBySignal(SIGABRT), "bad_function_call");
}

TEST(TaskPoolDeathTest, AnExceptionOfTheRunnerEndsTheProcess) {
    EXPECT_PROCESS_END(
        {
            JobPool pool(1, [](const JobPointer&) { throw std::runtime_error("escaped"); });
            runOneJob(pool);
        },
        testing::KilledBySignal(SIGABRT), "escaped");
}

// The contract also states waiting forever. The alarm ends the process.
TEST(TaskPoolDeathTest, NoThreadsAndATaskWaitForever) {
    EXPECT_PROCESS_END(
        {
            alarm(1);
            JobPool pool(0, ignore);
            runOneJob(pool);
        },
        testing::KilledBySignal(SIGALRM), "");
}

TEST(TaskPoolDeathTest, AThreadThatCannotStartIsTheStandardSystemErrorAndNoHang) {
    EXPECT_PROCESS_EXIT(
        {
            support::limitThreads();
            try {
                JobPool pool(1000, ignore);
            } catch (const std::system_error& error) {
                const bool unavailable = error.code() == std::errc::resource_unavailable_try_again;
                std::cout << (unavailable ? "unavailable" : "another error") << std::endl;
            }
            std::_Exit(
                9); // the threads that were started must have ended, otherwise the pool would end the process
        },
        9, "^unavailable\n$");
}

#endif

} // namespace

} // namespace Tavrin::GaussionSplat
