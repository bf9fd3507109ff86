#include "src/splatheader_scan.h"
#include "tests/support/deathtest.h"
#include "tests/support/fields.h"
#include "tests/support/files.h"
#include "tests/support/floats.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

using support::Random;
using Position = std::array<float, 3>;

using support::infinity;
using support::nan;
struct Box {
    Vector3 min;
    Vector3 max;
};

const std::string headerText = "thirteen head"; // in front of the records

struct ScanTest : testing::Test {
    support::Scratch scratch;
    std::string path = (scratch / "scene.ply").string();
    std::uint64_t blockSplatsBefore = blockSplats;

    ~ScanTest() override { blockSplats = blockSplatsBefore; }

    // Writes records of this many floats at these positions. Values that the scan must not read are far away.
    void write(const std::vector<Position>& positions,
               std::size_t recordFloats = layoutWithCoefficients.floats) const {
        std::vector<float> records;
        for (const Position& position : positions) {
            records.insert(records.end(), position.begin(), position.end());
            records.insert(records.end(), recordFloats - 3, -1e30f);
        }
        std::string bytes = headerText;
        bytes.append(reinterpret_cast<const char*>(records.data()), records.size() * sizeof(float));
        support::writeFile(path, bytes);
    }

    Box scan(std::int64_t vertexCount) const {
        const auto [min, max] =
            SplatHeader::computeBBox(path, vertexCount, static_cast<std::int32_t>(headerText.size()));
        return {min, max};
    }

    Box scan(const std::vector<Position>& positions) const {
        write(positions);
        return scan(static_cast<std::int64_t>(positions.size()));
    }
};

void expectBox(const Box& box, const Position& min, const Position& max) {
    EXPECT_EQ(box.min.x, min[0]);
    EXPECT_EQ(box.min.y, min[1]);
    EXPECT_EQ(box.min.z, min[2]);
    EXPECT_EQ(box.max.x, max[0]);
    EXPECT_EQ(box.max.y, max[1]);
    EXPECT_EQ(box.max.z, max[2]);
}

TEST_F(ScanTest, TheBoxAlwaysHoldsTheOrigin) {
    expectBox(scan({{2, 3, 4}, {5, 6, 7}}), {0, 0, 0}, {5, 6, 7});
    expectBox(scan({{-2, -3, -4}, {-5, -6, -7}}), {-5, -6, -7}, {0, 0, 0});
    expectBox(scan({{-2, 3, 0}}), {-2, 0, 0}, {0, 3, 0});
}

TEST_F(ScanTest, EveryRecordIsLookedAt) {
    std::vector<Position> positions(7, Position{0, 0, 0});
    for (std::size_t i = 0; i < positions.size(); ++i) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            std::vector<Position> moved = positions;
            moved[i][axis] = 9.5f;
            Position max{0, 0, 0};
            max[axis] = 9.5f;
            expectBox(scan(moved), {0, 0, 0}, max);
        }
    }
}

TEST_F(ScanTest, OnlyTheStatedNumberOfRecordsIsLookedAt) {
    write({{1, 1, 1}, {2, 2, 2}, {30, 30, 30}});
    expectBox(scan(2), {0, 0, 0}, {2, 2, 2});
}

TEST_F(ScanTest, NoVerticesGiveTheOrigin) {
    write({{5, 5, 5}});
    expectBox(scan(std::int64_t{0}), {0, 0, 0}, {0, 0, 0});
    expectBox(scan(std::int64_t{-1}), {0, 0, 0}, {0, 0, 0});
    expectBox(scan(std::numeric_limits<std::int64_t>::min()), {0, 0, 0}, {0, 0, 0});
}

TEST_F(ScanTest, NanNeverReplacesABound) {
    expectBox(scan({{nan, nan, nan}}), {0, 0, 0}, {0, 0, 0});
    expectBox(scan({{-1, nan, 3}, {nan, -2, nan}, {nan, 5, -6}}), {-1, -2, -6}, {0, 5, 3});
    expectBox(scan({{nan, 1, 1}, {7, nan, 1}}), {0, 0, 0}, {7, 1, 1});
}

TEST_F(ScanTest, InfinitiesAndExtremesAreValuesLikeOthers) {
    expectBox(scan({{infinity, -infinity, 1}}), {0, -infinity, 0}, {infinity, 0, 1});
    constexpr float most = std::numeric_limits<float>::max();
    constexpr float least = std::numeric_limits<float>::denorm_min();
    expectBox(scan({{most, least, -least}}), {0, 0, -least}, {most, least, 0});
}

TEST_F(ScanTest, TheZeroOfTheOriginStaysPositive) {
    const Box box = scan({{-0.0f, -0.0f, -0.0f}});
    EXPECT_FALSE(std::signbit(box.min.x));
    EXPECT_FALSE(std::signbit(box.max.x));
}

// 248 bytes are 3 records of 68 bytes and 44 bytes of the next, so the scan reads values from the middle of
// narrow records.
TEST_F(ScanTest, NarrowRecordsAreScannedWithTheWideStrideToo) {
    constexpr std::size_t narrow = layoutWithoutCoefficients.floats;
    std::vector<float> floats(narrow * 8);
    for (std::size_t i = 0; i < floats.size(); ++i) {
        floats[i] = static_cast<float>(i + 1);
    }
    std::string bytes = headerText;
    bytes.append(reinterpret_cast<const char*>(floats.data()), floats.size() * sizeof(float));
    support::writeFile(path, bytes);
    expectBox(scan(2), {0, 0, 0},
              {floats[layoutWithCoefficients.floats], floats[layoutWithCoefficients.floats + 1],
               floats[layoutWithCoefficients.floats + 2]});
    // The third stride starts at float 124. The rest of it is beyond the end of the file and reads as zeros.
    expectBox(scan(3), {0, 0, 0}, {floats[124], floats[125], floats[126]});
    expectBox(scan(8), {0, 0, 0}, {floats[124], floats[125], floats[126]});
}

TEST_F(ScanTest, WhatLiesBehindTheEndOfTheFileReadsAsZeros) {
    write({{-1, -2, -3}, {-40, -50, -60}});
    const std::uint64_t second = headerText.size() + scanStride;
    const Position expected[] = {{-1, -2, -3}, {-40, -2, -3}, {-40, -50, -3}, {-40, -50, -60}};
    for (const std::uint64_t kept : {3, 2, 1, 0}) { // floats of the second record
        std::filesystem::resize_file(path, second + 4 * kept);
        expectBox(scan(2), expected[kept], {0, 0, 0});
    }
    std::filesystem::resize_file(path, 3);
    expectBox(scan(2), {0, 0, 0}, {0, 0, 0});
}

// The last float of a cut file keeps its low bytes; the missing high bytes are zeros.
TEST_F(ScanTest, AFloatThatIsCutInTheMiddleIsFilledUpWithZeroBytes) {
    write({{1, 1, 1}, {1.0000001f, 0, 0}});
    std::filesystem::resize_file(path, headerText.size() + scanStride + 2);
    expectBox(scan(2), {0, 0, 0}, {1, 1, 1}); // 0x3F800001 cut to 0x00000001
}

TEST_F(ScanTest, AFileThatCannotBeOpenedContributesNothing) {
    EXPECT_EQ(support::standardOutputOf([&] { expectBox(scan(5), {0, 0, 0}, {0, 0, 0}); }), "");
}

// There is one seek for a block. If the block starts before the file, none of it is read, even the part in
// the file.
TEST_F(ScanTest, ABlockBeforeTheStartOfTheFileContributesNothing) {
    write(std::vector<Position>(3000, Position{2, 3, 4}));
    const auto [min, max] = SplatHeader::computeBBox(path, 3000, -10);
    expectBox({min, max}, {0, 0, 0}, {0, 0, 0});
}

TEST_F(ScanTest, BlocksTogetherGiveTheBoxOfAll) {
    Random random(30);
    for (const std::uint64_t block : {1u, 2u, 3u, 7u, 1000u}) {
        for (const std::size_t count : {1u, 2u, 3u, 4u, 6u, 7u, 8u, 25u}) {
            std::vector<Position> positions(count);
            Position min{0, 0, 0};
            Position max{0, 0, 0};
            for (Position& position : positions) {
                for (std::size_t axis = 0; axis < 3; ++axis) {
                    const float value = support::awkwardFloat(random);
                    position[axis] = value;
                    min[axis] = min[axis] > value ? value : min[axis];
                    max[axis] = value > max[axis] ? value : max[axis];
                }
            }
            blockSplats = block;
            expectBox(scan(positions), min, max);
        }
    }
}

// More records than any window holds.
TEST_F(ScanTest, LongBlocksAreScannedToTheirEnd) {
    constexpr std::size_t count = 5000;
    for (const std::size_t at : {std::size_t{0}, std::size_t{1023}, std::size_t{1024}, std::size_t{4095},
                                 std::size_t{4096}, count - 1}) {
        std::vector<Position> positions(count, Position{0, 0, 0});
        positions[at] = {1, -2, 3};
        expectBox(scan(positions), {0, -2, 0}, {1, 0, 3});
    }
}

TEST_F(ScanTest, BlocksHoldTwoMillionSplats) {
    EXPECT_EQ(blockSplats, 2'000'000u);
}

// Shows the position of the block border: only the record after it is not zero.
TEST_F(ScanTest, TheSecondBlockStartsTwoMillionRecordsBehindTheHeader) {
    constexpr std::uint64_t offset = 496'000'000;
    const Position last{-1.5f, 2.5f, -3.5f};
    std::string record(scanStride, '\0');
    std::memcpy(record.data(), last.data(), sizeof last);
    support::writeFile(path, headerText);
    std::filesystem::resize_file(path, headerText.size() + offset); // a hole, which takes no disk space
    std::ofstream(path, std::ios::binary | std::ios::app) << record;
    expectBox(scan(2'000'000), {0, 0, 0}, {0, 0, 0});
    expectBox(scan(2'000'001), {-1.5f, 0, -3.5f}, {0, 2.5f, 0});
}

TEST(ScanTask, DeclaresItsFieldsInOrder) {
    const SplatHeader::Task task;
    static_assert(std::is_same_v<decltype(SplatHeader::Task::stride), std::uint32_t>);
    static_assert(std::is_same_v<decltype(SplatHeader::Task::count), std::uint64_t>);
    static_assert(std::is_same_v<decltype(SplatHeader::Task::first), std::uint64_t>);
    static_assert(std::is_same_v<decltype(SplatHeader::Task::offset), std::uint64_t>);
    static_assert(std::is_same_v<decltype(SplatHeader::Task::length), std::uint64_t>);
    support::expectDeclaredInOrder({{"path", task.path},
                                    {"stride", task.stride},
                                    {"count", task.count},
                                    {"first", task.first},
                                    {"offset", task.offset},
                                    {"length", task.length}});
}

SplatHeader::Task taskOf(const std::string& path, std::uint64_t first, std::uint64_t count) {
    return {.path = path,
            .stride = scanStride,
            .count = count,
            .first = first,
            .offset = first * scanStride + headerText.size(),
            .length = count * scanStride};
}

TEST_F(ScanTest, ATaskReadsItsOwnSlice) {
    write({{1, 1, 1}, {2, 2, 2}, {-3, -3, -3}, {40, 40, 40}});
    ScanPass pass;
    expectBox({pass.min, pass.max}, {0, 0, 0}, {0, 0, 0});
    scanBlock(taskOf(path, 1, 2), pass);
    expectBox({pass.min, pass.max}, {-3, -3, -3}, {2, 2, 2});
    scanBlock(taskOf(path, 3, 1), pass); // widens the box of the first
    expectBox({pass.min, pass.max}, {-3, -3, -3}, {40, 40, 40});
}

// A worker that has finished its own block takes windows of a block that another has begun.
TEST_F(ScanTest, ATaskHelpsWithBlocksThatOthersHaveBegun) {
    write({{1, 1, 1}, {20, 20, 20}});
    for (const bool blocksWait : {false, true}) {
        ScanPass pass;
        pass.blocks.waiting = blocksWait ? 2 : 1; // the worker's own, and one that nobody has begun
        pass.blocks.share(std::make_shared<ScanJob>(taskOf(path, 1, 1)));
        scanBlock(taskOf(path, 0, 1), pass);
        EXPECT_EQ(pass.max.x, blocksWait ? 1.0 : 20.0);
    }
}

TEST_F(ScanTest, ATaskWithoutLengthEndsTheProcess) {
    write({{1, 1, 1}});
    for (const std::uint64_t length :
         {std::uint64_t{0}, static_cast<std::uint64_t>(-std::int64_t{scanStride})}) {
        EXPECT_PROCESS_EXIT(
            {
                ScanPass pass;
                SplatHeader::Task task = taskOf(path, 0, 1);
                task.length = length;
                scanBlock(task, pass);
            },
            support::statusMinusOne, "^$");
    }
}

} // namespace

} // namespace Tavrin::GaussionSplat
