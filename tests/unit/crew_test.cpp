// Threads that work on one task together.
#include "threads/crew.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace Tavrin::SplatThreads {
namespace {

TEST(Crew, SharesEveryItemOnce) {
    for (const unsigned workers : {0u, 1u, 2u, 7u}) {
        for (const std::uint64_t items : {0u, 1u, 3u, 1000u}) {
            std::vector<std::atomic<int>> done(items);
            Crew crew;
            crew.share(workers, items, [&](unsigned worker, std::uint64_t item) {
                EXPECT_LT(worker, workers > 0 ? workers : 1);
                ++done[item];
            });
            for (const std::atomic<int>& times : done) {
                EXPECT_EQ(times, 1);
            }
        }
    }
}

TEST(Crew, EndsWithTheFirstFailure) {
    for (const unsigned workers : {1u, 3u}) {
        Crew crew;
        std::atomic<int> wakes = 0;
        std::atomic<std::uint64_t> behind = 0;
        crew.onStop([&] { ++wakes; });
        EXPECT_THROW(crew.share(workers, 1'000'000,
                                [&](unsigned, std::uint64_t item) {
                                    behind += crew.isStopped() ? 1 : 0;
                                    if (item >= 20) {
                                        throw std::runtime_error("the twentieth");
                                    }
                                }),
                     std::runtime_error);
        EXPECT_TRUE(crew.isStopped());
        EXPECT_EQ(wakes, 1);
        EXPECT_LT(behind, workers); // what was being begun
    }
}

TEST(Crew, EndsWithWhatTheProgressFunctionThrows) {
    std::uint64_t told = 0;
    Crew crew([&](std::uint64_t done) {
        told = done;
        throw std::runtime_error("interrupted");
    });
    EXPECT_THROW(crew.share(2, 1000, [&](unsigned, std::uint64_t) { crew.advance(7); }), std::runtime_error);
    EXPECT_GE(told, 7u);
}

TEST(Crew, ReportsAllInTheEnd) {
    std::uint64_t told = 0;
    Crew crew([&](std::uint64_t done) {
        EXPECT_GE(done, told);
        told = done;
    });
    crew.share(3, 100, [&](unsigned, std::uint64_t item) { crew.advance(item); });
    crew.reportEnd();
    EXPECT_EQ(told, 4950u);
}

} // namespace
} // namespace Tavrin::SplatThreads
