// Every single-precision input of the decoder's elementary functions. INPUT_STEP is 1 in release builds;
// slower builds test every INPUT_STEP-th input.

#include "src/chunker_elementary.h"
#include "tests/support/floats.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <thread>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

using support::describe;
using support::sameFloat;

// A function under test, the system's own in double precision, and the same in extended precision.
struct Functions {
    float (*tested)(float);
    double (*system)(float);
    long double (*exact)(float);
};

struct Tally {
    std::atomic<std::uint64_t> inputs{0};
    std::atomic<std::uint64_t> differing{0}; // from the system's result, rounded to single precision
    std::atomic<std::uint64_t> wrong{0};     // of these, not the float next to the extended result
};

void compareRange(const Functions& functions, std::uint64_t first, std::uint64_t last, Tally& tally) {
    for (std::uint64_t bits = first; bits < last; bits += INPUT_STEP) {
        const float x = std::bit_cast<float>(static_cast<std::uint32_t>(bits));
        const float actual = functions.tested(x);
        if (sameFloat(actual, static_cast<float>(functions.system(x)))) {
            continue;
        }
        ++tally.differing;
        if (!sameFloat(actual, static_cast<float>(functions.exact(x))) && ++tally.wrong <= 10) {
            ADD_FAILURE() << describe(x) << " gives " << describe(actual) << " instead of "
                          << describe(static_cast<float>(functions.exact(x)));
        }
    }
    tally.inputs += (last - first + INPUT_STEP - 1) / INPUT_STEP;
}

// Compare all inputs below limit, as bit patterns, on every core.
void compareAll(const Functions& functions, std::uint64_t limit) {
    constexpr std::uint64_t piece = std::uint64_t{INPUT_STEP} << 20;
    Tally tally;
    std::atomic<std::uint64_t> next{0};
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < std::max(1u, std::thread::hardware_concurrency()); ++i) {
        threads.emplace_back([&] {
            for (std::uint64_t first = next.fetch_add(piece); first < limit; first = next.fetch_add(piece)) {
                compareRange(functions, first, std::min(first + piece, limit), tally);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::cout << tally.inputs << " inputs, " << tally.differing << " differ from the system's function, "
              << tally.wrong << " of them wrong\n";
    EXPECT_EQ(tally.wrong, 0u);
}

TEST(ExponentialExhaustive, IsTheDoubleResultRoundedOnceForEveryInput) {
    compareAll({.tested = [](float x) { return exponential(x); },
                .system = [](float x) { return std::exp(static_cast<double>(x)); },
                .exact = [](float x) { return std::exp(static_cast<long double>(x)); }},
               std::uint64_t{1} << 32);
}

TEST(EighthRootExhaustive, IsTheDoubleResultRoundedOnceForEveryInput) {
    compareAll({.tested = [](float x) { return eighthRoot(x); },
                .system = [](float x) { return std::pow(static_cast<double>(x), 0.125); },
                .exact = [](float x) { return std::pow(static_cast<long double>(x), 0.125L); }},
               std::uint64_t{1} << 31); // those without the sign bit
}

TEST(EighthRootExhaustive, TakesTheMagnitude) {
    constexpr std::uint64_t limit = std::uint64_t{1} << 31;
    for (std::uint64_t bits = 0; bits < limit; bits += 101 * INPUT_STEP) {
        const float x = std::bit_cast<float>(static_cast<std::uint32_t>(bits));
        ASSERT_TRUE(sameFloat(eighthRoot(-x), eighthRoot(x))) << describe(x);
    }
}

} // namespace

} // namespace Tavrin::GaussionSplat
