#include "src/splatheader.h"
#include "tests/support/fields.h"
#include "tests/support/files.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace Tavrin::GaussionSplat {

namespace {

// Values that an earlier conversion may have left.
const ChunkGrid leftovers{.cellSizeX = -1.0f,
                          .cellSizeY = -2.0f,
                          .originX = -3.0f,
                          .originY = -4.0f,
                          .cellCountX = -5,
                          .cellCountY = -6};

struct ChunkGridTest : testing::Test {
    ChunkGrid before = chunkGrid;

    ChunkGridTest() { chunkGrid = leftovers; }
    ~ChunkGridTest() override { chunkGrid = before; }
};

void expectGrid(float cellSizeX, float cellSizeY, std::int32_t cellCountX, std::int32_t cellCountY) {
    EXPECT_EQ(chunkGrid.cellSizeX, cellSizeX);
    EXPECT_EQ(chunkGrid.cellSizeY, cellSizeY);
    EXPECT_EQ(chunkGrid.cellCountX, cellCountX);
    EXPECT_EQ(chunkGrid.cellCountY, cellCountY);
}

TEST(ChunkGrid, DeclaresItsFieldsInOrderAndStartsAtZero) {
    const ChunkGrid grid;
    static_assert(std::is_same_v<decltype(ChunkGrid::cellSizeX), float>);
    static_assert(std::is_same_v<decltype(ChunkGrid::originY), float>);
    static_assert(std::is_same_v<decltype(ChunkGrid::cellCountX), std::int32_t>);
    support::expectDeclaredInOrder({{"cellSizeX", grid.cellSizeX},
                                    {"cellSizeY", grid.cellSizeY},
                                    {"originX", grid.originX},
                                    {"originY", grid.originY},
                                    {"cellCountX", grid.cellCountX},
                                    {"cellCountY", grid.cellCountY}});
    for (const float value : {grid.cellSizeX, grid.cellSizeY, grid.originX, grid.originY}) {
        EXPECT_EQ(value, 0.0f);
    }
    EXPECT_EQ(grid.cellCountX, 0);
    EXPECT_EQ(grid.cellCountY, 0);
    EXPECT_EQ(chunkGrid.cellCountX, 0); // in a process that has converted nothing
    EXPECT_EQ(chunkGrid.cellSizeX, 0.0f);
}

TEST_F(ChunkGridTest, BelowAMillionSplatsOneCellSpansTheSceneAndTheCountsStay) {
    chooseGrid(999'999, {-10.5, 20.25, -1.0}, {2.0, 100.0, 7.0});
    expectGrid(12.5f, 79.75f, leftovers.cellCountX, leftovers.cellCountY);
    EXPECT_EQ(chunkGrid.originX, -10.5f);
    EXPECT_EQ(chunkGrid.originY, 20.25f);
    for (const std::int64_t count : {0, 1, 12345}) {
        chooseGrid(count, {0.0, 0.0, 0.0}, {1.0, 2.0, 3.0});
        expectGrid(1.0f, 2.0f, leftovers.cellCountX, leftovers.cellCountY);
    }
}

TEST_F(ChunkGridTest, TheExtentIsTakenInDoublePrecisionAndThenRounded) {
    chooseGrid(1, {0.1, -0.3, 0.0}, {0.7, 1e-9, 0.0});
    EXPECT_EQ(chunkGrid.cellSizeX, static_cast<float>(0.7 - 0.1));
    EXPECT_EQ(chunkGrid.cellSizeY, static_cast<float>(1e-9 + 0.3));
    EXPECT_EQ(chunkGrid.originX, 0.1f);
    EXPECT_EQ(chunkGrid.originY, -0.3f);
}

TEST_F(ChunkGridTest, CellSizeFollowsFromCountAndExtent) {
    struct Row {
        std::int64_t count;
        double extentX;
        double extentY;
        float size;
        std::int32_t countX;
        std::int32_t countY;
    };
    const Row rows[] = {
        {1'000'000, 250.0, 80.0, 30.0f, 9, 3},
        {3'000'000, 250.0, 80.0, 30.0f, 9, 3},
        {8'000'001, 50.0, 50.0, 10.0f, 6, 6},
        {8'000'000, 50.0, 50.0, 30.0f, 2, 2},
        {1'000'000, 50.0, 50.0, 30.0f, 2, 2},
        {1'000'000, 0.0, 0.0, 30.0f, 1, 1},   // always at least one cell
        {1'000'000, 30.0, 60.0, 30.0f, 2, 3}, // a multiple of the size gets one more
        {1'000'000, 29.999, 59.999, 30.0f, 1, 2},
        {8'000'001, 99.999, 99.999, 10.0f, 10, 10},
        {8'000'001, 100.0, 50.0, 15.0f, 7, 4}, // not both below 100
        {8'000'001, 50.0, 100.0, 15.0f, 4, 7},
        {8'000'000, 100.0, 100.0, 30.0f, 4, 4},
        {100'000'000, 500.0, 500.0, 15.0f, 34, 34},
        {100'000'001, 500.0, 500.0, 10.0f, 51, 51},
        {100'000'001, 50.0, 50.0, 10.0f, 6, 6},
        {-1, 500.0, 500.0, 10.0f, 51, 51}, // counts are compared unsigned
        {-1, 50.0, 50.0, 10.0f, 6, 6},
        {1'000'000, -90.0, -20.0, 30.0f, -2, 0}, // minimum above maximum: truncated towards zero
        {1'000'000, 1e6, 30.0 * 70'000, 30.0f, 33'334, 70'001},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::to_string(row.count) + " splats, " + std::to_string(row.extentX) + " by " +
                     std::to_string(row.extentY));
        chunkGrid = leftovers;
        chooseGrid(row.count, {1000.5, -2000.25, 0.0}, {1000.5 + row.extentX, -2000.25 + row.extentY, 1.0});
        expectGrid(row.size, row.size, row.countX, row.countY);
        EXPECT_EQ(chunkGrid.originX, 1000.5f);
        EXPECT_EQ(chunkGrid.originY, -2000.25f);
    }
}

TEST_F(ChunkGridTest, HeightPlaysNoPart) {
    chooseGrid(8'000'001, {0.0, 0.0, -1e6}, {50.0, 50.0, 1e6});
    expectGrid(10.0f, 10.0f, 6, 6);
}

// Such counts do not fit an integer. The rule: the low 32 bits of a value that fits 64 bits, otherwise 0.
TEST_F(ChunkGridTest, ExtentsBeyondAllIntegersGiveDefinedCounts) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    chooseGrid(1'000'000, {0.0, 0.0, 0.0}, {infinity, nan, 0.0});
    expectGrid(30.0f, 30.0f, 0, 0);
    chooseGrid(1'000'000, {0.0, 0.0, 0.0}, {30.0 * 4294967296.0, 30.0 * 2147483648.0, 0.0});
    expectGrid(30.0f, 30.0f, 1, -2147483647);
    chooseGrid(1'000'000, {0.0, 0.0, 0.0}, {1e300, -1e300, 0.0});
    expectGrid(30.0f, 30.0f, 0, 0);
}

struct ReaderGridTest : ChunkGridTest {
    support::Scratch scratch;

    // Reads a header that states a count and bounds. There are no records, and none are read.
    SplatHeader readHeader(const std::string& count, const std::string& extentX, const std::string& extentY) {
        support::PlyFile file;
        file.elementLine = "element vertex " + count;
        file.comments = {"comment minx 1", "comment miny 2", "comment maxx " + extentX,
                         "comment maxy " + extentY};
        const std::filesystem::path path = scratch / "scene.ply";
        file.write(path);
        return SplatHeader(path.string(), std::make_shared<Params>(), 1);
    }
};

TEST_F(ReaderGridTest, EverySuccessfulReadSetsTheGrid) {
    readHeader("1000000", "251", "82");
    expectGrid(30.0f, 30.0f, 9, 3);
    EXPECT_EQ(chunkGrid.originX, 1.0f);
    EXPECT_EQ(chunkGrid.originY, 2.0f);
    readHeader("100000001", "501", "502");
    expectGrid(10.0f, 10.0f, 51, 51);
    readHeader("999999", "251", "82"); // the counts of the grid before survive
    expectGrid(250.0f, 80.0f, 51, 51);
}

TEST_F(ReaderGridTest, AReadThatThrowsLeavesTheGridAlone) {
    EXPECT_THROW(readHeader("many", "251", "82"), std::invalid_argument);
    expectGrid(leftovers.cellSizeX, leftovers.cellSizeY, leftovers.cellCountX, leftovers.cellCountY);
    EXPECT_EQ(chunkGrid.originX, leftovers.originX);
}

TEST_F(ReaderGridTest, TheScannedBoxCountsWhenNoBoundsAreStated) {
    support::PlyFile file;
    file.coefficients = true;
    support::Splat splat;
    splat.position = {40.0f, -5.0f, 0.0f};
    file.add(splat);
    file.write(scratch / "scene.ply");
    SplatHeader((scratch / "scene.ply").string(), std::make_shared<Params>(), 1);
    expectGrid(40.0f, 5.0f, leftovers.cellCountX, leftovers.cellCountY);
    EXPECT_EQ(chunkGrid.originX, 0.0f);
    EXPECT_EQ(chunkGrid.originY, -5.0f);
}

} // namespace

} // namespace Tavrin::GaussionSplat
