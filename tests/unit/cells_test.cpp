#include "src/cells.h"

#include "src/records.h"
#include "tests/reference/splats.h"
#include "tests/support/floats.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

using support::infinity;
using support::nan;
using support::Random;

std::uint32_t referenceKey(float x, float y, const ChunkGrid& grid) {
    return reference::cellKey(x, y,
                              {.originX = grid.originX,
                               .originY = grid.originY,
                               .cellSizeX = grid.cellSizeX,
                               .cellSizeY = grid.cellSizeY});
}

TEST(CellKey, IsColumnAndRow) {
    const ChunkGrid grid{.cellSizeX = 30.0f, .cellSizeY = 20.0f, .originX = -10.0f, .originY = 5.0f};
    EXPECT_EQ(cellKey(-10.0f, 5.0f, grid), 0u);
    EXPECT_EQ(cellKey(19.9f, 24.9f, grid), 0u);
    EXPECT_EQ(cellKey(20.0f, 5.0f, grid), 1u);
    EXPECT_EQ(cellKey(-10.0f, 25.0f, grid), 1u << 16);
    EXPECT_EQ(cellKey(85.0f, 70.0f, grid), 3u | 3u << 16);
}

TEST(CellKey, BelowTheOriginBothHalvesAreSet) {
    const ChunkGrid grid{.cellSizeX = 30.0f, .cellSizeY = 30.0f};
    EXPECT_EQ(cellKey(-0.5f, 0.0f, grid), 0xFFFFFFFFu); // column -1
    EXPECT_EQ(cellKey(-30.5f, 100.0f, grid), 0xFFFFFFFEu);
    EXPECT_EQ(cellKey(0.0f, -0.5f, grid), 0xFFFF0000u); // row -1
    EXPECT_EQ(cellKey(31.0f, -31.0f, grid), 0xFFFE0001u);
}

TEST(CellKey, ManyColumnsRunIntoTheRows) {
    const ChunkGrid grid{.cellSizeX = 1.0f, .cellSizeY = 1.0f};
    EXPECT_EQ(cellKey(65'535.0f, 0.0f, grid), 0xFFFFu);
    EXPECT_EQ(cellKey(65'536.0f, 0.0f, grid), 0x10000u);
    EXPECT_EQ(cellKey(65'537.0f, 2.0f, grid), 0x30001u);
    EXPECT_EQ(cellKey(0.0f, 65'536.0f, grid), 0u); // shifted out
    EXPECT_EQ(cellKey(3e9f, 0.0f, grid), 3'000'000'000u);
}

TEST(CellKey, WhatNoIntegerHoldsIsZero) {
    const ChunkGrid grid{.cellSizeX = 30.0f, .cellSizeY = 30.0f};
    EXPECT_EQ(cellKey(nan, nan, grid), 0u);
    EXPECT_EQ(cellKey(infinity, -infinity, grid), 0u);
    EXPECT_EQ(cellKey(nan, 31.0f, grid), 1u << 16);
    EXPECT_EQ(cellKey(1.0f, 1.0f, ChunkGrid()), 0u); // cells of no size
}

TEST(CellKey, IsComputedInSinglePrecision) {
    Random random(64);
    bool doubleWouldDiffer = false;
    for (int i = 0; i < 400'000; ++i) {
        const bool wild = i % 2 == 0;
        const auto any = [&](float low, float high) {
            return wild ? support::mixedFloat(random, low, high) : random.between(low, high);
        };
        const ChunkGrid grid{.cellSizeX = any(0.01f, 30.0f),
                             .cellSizeY = any(0.01f, 30.0f),
                             .originX = any(-500.0f, 500.0f),
                             .originY = any(-500.0f, 500.0f)};
        const float x = any(-1000.0f, 1000.0f);
        const float y = any(-1000.0f, 1000.0f);
        const std::uint32_t expected = referenceKey(x, y, grid);
        ASSERT_EQ(cellKey(x, y, grid), expected)
            << support::describe(x) << ' ' << support::describe(y) << ' ' << support::describe(grid.originX);
        const double column = std::floor((double{x} - double{grid.originX}) / double{grid.cellSizeX});
        doubleWouldDiffer =
            doubleWouldDiffer || (!wild && reference::truncated(column) != (expected & 0xFFFF));
    }
    EXPECT_TRUE(doubleWouldDiffer);
}

// Records of `stride` floats that start with x and y. The rest is NaN, which must not be read.
std::vector<float> recordsAt(const std::vector<float>& xAndY, std::size_t stride) {
    std::vector<float> records(xAndY.size() / 2 * stride, nan);
    for (std::size_t i = 0; i < xAndY.size() / 2; ++i) {
        records[i * stride] = xAndY[2 * i];
        records[i * stride + 1] = xAndY[2 * i + 1];
    }
    return records;
}

void expectKeys(const std::vector<float>& xAndY, std::size_t stride, const ChunkGrid& grid) {
    const std::vector<float> records = recordsAt(xAndY, stride);
    const std::size_t count = xAndY.size() / 2;
    constexpr std::uint32_t untouched = 0xDEADBEEF;
    std::vector<std::uint32_t> keys(count + 1, untouched);
    cellKeys(records.data(), stride, count, grid, keys.data());
    for (std::size_t i = 0; i < count; ++i) {
        ASSERT_EQ(keys[i], referenceKey(xAndY[2 * i], xAndY[2 * i + 1], grid))
            << i << " of " << count << ": " << support::describe(xAndY[2 * i]) << ' '
            << support::describe(xAndY[2 * i + 1]);
    }
    EXPECT_EQ(keys[count], untouched) << count;
}

TEST(CellKeys, AreThoseOfTheSplatsOneByOneForEveryCount) {
    Random random(65);
    const ChunkGrid grid{.cellSizeX = 15.0f, .cellSizeY = 20.0f, .originX = -125.0f, .originY = -100.0f};
    std::vector<float> xAndY;
    for (std::size_t count = 0; count <= 300; ++count) {
        expectKeys(xAndY, recordLayout(count % 2 != 0).floats, grid);
        xAndY.push_back(random.between(-200.0f, 200.0f));
        xAndY.push_back(random.between(-200.0f, 200.0f));
    }
}

TEST(CellKeys, OfPositionsThatNoIntegerHoldsTouchNoOthers) {
    Random random(66);
    const ChunkGrid grid{.cellSizeX = 0.5f, .cellSizeY = 0.25f, .originX = -3.0f, .originY = 7.0f};
    const float outside[] = {nan, infinity, -infinity, 5e8f, -5e8f, 3e9f, -3e9f, 1e30f};
    for (std::size_t at = 0; at < 130; ++at) {
        std::vector<float> xAndY(2 * 200);
        for (float& value : xAndY) {
            value = random.between(-50.0f, 50.0f);
        }
        xAndY[2 * at + at % 2] = outside[at % std::size(outside)];
        expectKeys(xAndY, layoutWithoutCoefficients.floats, grid);
    }
}

TEST(CellKeys, HoldOnTheEdgesOfCells) {
    const ChunkGrid grid{.cellSizeX = 30.0f, .cellSizeY = 30.0f};
    std::vector<float> xAndY;
    for (int cell = -40; cell <= 40; ++cell) {
        const float edge = 30.0f * static_cast<float>(cell);
        for (const float x : {std::nextafter(edge, -infinity), edge, std::nextafter(edge, infinity)}) {
            xAndY.insert(xAndY.end(), {x, -x});
        }
    }
    xAndY.insert(xAndY.end(), {-0.0f, 0.0f});
    expectKeys(xAndY, layoutWithCoefficients.floats, grid);
}

TEST(CellCounter, CountsEveryKeyAndNumbersThemAsTheyAreSeen) {
    // Keys that collide in the counter's table, and keys that could be taken for an empty entry.
    std::vector<std::uint32_t> keys = {5, 1, 0, 0xFFFFFFFF, 1u << 16};
    for (std::uint32_t k = 0; k < 20'000; ++k) {
        keys.push_back(k * 1023);
        keys.push_back(k << 12);
    }
    CellCounter counter;
    std::map<std::uint32_t, std::uint64_t> expected;
    std::vector<std::uint32_t> order;
    for (int round = 0; round < 2; ++round) {
        for (const std::uint32_t key : keys) {
            if (expected.find(key) == expected.end()) {
                order.push_back(key);
            }
            expected[key] += 3;
            counter.add(key, 3);
        }
    }
    ASSERT_EQ(counter.counts().size(), order.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        ASSERT_EQ(counter.counts()[i].key, order[i]);
        ASSERT_EQ(counter.counts()[i].splats, expected[order[i]]);
        ASSERT_EQ(counter.numberOf(order[i]), i);
    }
}

TEST(CellCounter, KnowsNoKeyBeforeItIsCounted) {
    for (const std::uint32_t key : {0u, 1u, 1023u, 4096u, 0xFFFFFFFFu}) {
        CellCounter counter;
        counter.add(key, 2);
        ASSERT_EQ(counter.counts().size(), 1u) << key;
        EXPECT_EQ(counter.counts()[0].key, key);
        EXPECT_EQ(counter.counts()[0].splats, 2u);
    }
}

} // namespace

} // namespace Tavrin::GaussionSplat
