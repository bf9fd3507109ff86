// The distribution of an attribute's values, the sampled records, and the bars.
#include "program/info/distribution.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <numeric>
#include <string>

namespace Tavrin::SplatProgram {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();

Distribution distributionOf(std::initializer_list<double> values) {
    Series series("opacity");
    for (const double value : values) {
        series.sample(value);
    }
    return series.finish();
}

std::uint64_t sumOf(const Distribution& distribution) {
    return std::accumulate(distribution.bars.begin(), distribution.bars.end(), std::uint64_t{0});
}

TEST(Series, OfNothingHasNoValues) {
    const Distribution result = distributionOf({});
    EXPECT_EQ(result.name, "opacity");
    EXPECT_EQ(result.values, 0u);
    EXPECT_EQ(result.notFinite, 0u);
    EXPECT_EQ(sumOf(result), 0u);
}

TEST(Series, FindsPercentilesWhateverTheOrder) {
    Series series("x");
    for (int i = 0; i <= 1000; ++i) {
        series.sample((i * 10) % 1001); // every number from 0 to 1000 once
    }
    const Distribution result = series.finish();
    EXPECT_EQ(result.values, 1001u);
    EXPECT_EQ(result.smallest, 0.0);
    EXPECT_EQ(result.low, 10.0);
    EXPECT_EQ(result.median, 500.0);
    EXPECT_EQ(result.high, 990.0);
    EXPECT_EQ(result.largest, 1000.0);
    // The bars count the values from low to high in equal parts: 981 values, 61 or 62 in each.
    EXPECT_EQ(sumOf(result), 981u);
    for (const std::uint32_t bar : result.bars) {
        EXPECT_NEAR(bar, 981.0 / Distribution::parts, 1.0);
    }
}

TEST(Series, CountsWhatIsNotFiniteApart) {
    const Distribution result = distributionOf({infinity, 1.0, std::nan(""), 3.0, -infinity});
    EXPECT_EQ(result.values, 2u);
    EXPECT_EQ(result.notFinite, 3u);
    EXPECT_EQ(result.smallest, 1.0);
    EXPECT_EQ(result.largest, 3.0);
    EXPECT_EQ(sumOf(result), 2u);
}

TEST(Series, WidensTheEndsWithoutSampling) {
    Series series("x");
    series.sample(5.0);
    series.widen(-2.0);
    series.widen(9.0);
    series.widen(infinity);
    const Distribution result = series.finish();
    EXPECT_EQ(result.values, 3u);
    EXPECT_EQ(result.notFinite, 1u);
    EXPECT_EQ(result.smallest, -2.0);
    EXPECT_EQ(result.largest, 9.0);
    EXPECT_EQ(result.low, 5.0);
    EXPECT_EQ(result.high, 5.0);
    EXPECT_EQ(sumOf(result), 1u);
}

TEST(Series, PutsEqualValuesIntoOneBar) {
    const Distribution result = distributionOf({2.5, 2.5, 2.5});
    EXPECT_EQ(result.median, 2.5);
    EXPECT_EQ(result.bars.front(), 3u);
    EXPECT_EQ(sumOf(result), 3u);
}

TEST(SamplePlan, TakesFewRecordsWhole) {
    for (const std::uint64_t records : {0u, 1u, 262'144u}) {
        const SamplePlan plan(records);
        EXPECT_TRUE(plan.everything()) << records;
        EXPECT_EQ(plan.samples(), records);
        EXPECT_EQ(plan.start(0), 0u);
    }
}

TEST(SamplePlan, SpreadsRunsFromTheFirstRecordToTheLast) {
    for (const std::uint64_t records :
         {std::uint64_t{262'145}, std::uint64_t{10'000'000}, std::uint64_t{1} << 40}) {
        const SamplePlan plan(records);
        EXPECT_FALSE(plan.everything());
        ASSERT_GT(plan.runs, 1u);
        EXPECT_LT(plan.samples(), records);
        EXPECT_EQ(plan.start(0), 0u);
        EXPECT_EQ(plan.start(plan.runs - 1) + plan.length, records);
        for (std::uint64_t run = 1; run < plan.runs; ++run) {
            ASSERT_GE(plan.start(run), plan.start(run - 1) + plan.length)
                << "run " << run << " of " << records;
        }
    }
}

TEST(BarsText, GrowsWithTheCounts) {
    Distribution distribution;
    for (std::size_t i = 0; i < Distribution::parts; ++i) {
        distribution.bars[i] = static_cast<std::uint32_t>(i < 8 ? i : 0);
    }
    EXPECT_EQ(barsText(distribution, 16, false), " :-=+*#@        ");
    EXPECT_EQ(barsText(distribution, 16, true), " ▂▃▄▅▆▇█        ");
}

TEST(BarsText, ShowsEveryCountThatIsThere) {
    Distribution distribution;
    distribution.bars.front() = 1;
    distribution.bars.back() = 1'000'000;
    EXPECT_EQ(barsText(distribution, 16, false), ".              @");
    EXPECT_EQ(barsText(Distribution{}, 16, false), std::string(16, ' '));
}

TEST(BarsText, AddsUpNeighboursWhereBarsAreFewer) {
    Distribution distribution;
    distribution.bars = {1, 1, 1, 1, 0, 0, 0, 0, 2, 2, 2, 2, 0, 0, 0, 8};
    // 4, 0, 8, 8 of at most 8.
    EXPECT_EQ(barsText(distribution, 4, false), "= @@");
}

} // namespace
} // namespace Tavrin::SplatProgram
