// Work that an interrupted program does not wait for.
#include "program/system/apart.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>

namespace Tavrin::SplatProgram {
namespace {

TEST(Apart, ReturnsWhenTheWorkHasEnded) {
    bool isDone = false;
    EXPECT_TRUE(runApart([&] { isDone = true; }, [] { return false; }));
    EXPECT_TRUE(isDone);
    EXPECT_FALSE(isWorkLeftBehind());
}

TEST(Apart, PassesOnWhatTheWorkThrows) {
    EXPECT_THROW(runApart([] { throw std::runtime_error("it fails"); }, [] { return false; }),
                 std::runtime_error);
    EXPECT_FALSE(isWorkLeftBehind());
}

// Work that looks for itself whether it is wanted ends in its own way.
TEST(Apart, UnwantedWorkHasTimeToEnd) {
    std::atomic<bool> isUnwanted = false;
    const auto work = [&] {
        isUnwanted = true;
        throw std::runtime_error("interrupted");
    };
    EXPECT_THROW(runApart(work, [&] { return isUnwanted.load(); }), std::runtime_error);
    EXPECT_FALSE(isWorkLeftBehind());
}

TEST(Apart, UnwantedWorkThatDoesNotEndIsLeftBehind) {
    const auto mayEnd = std::make_shared<std::atomic<bool>>(false);
    const auto hasEnded = std::make_shared<std::atomic<bool>>(false);
    const auto work = [mayEnd, hasEnded] {
        while (!*mayEnd) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        *hasEnded = true;
    };
    EXPECT_FALSE(runApart(work, [] { return true; }));
    EXPECT_TRUE(isWorkLeftBehind());
    EXPECT_FALSE(*hasEnded);
    *mayEnd = true;
    while (!*hasEnded) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace
} // namespace Tavrin::SplatProgram
