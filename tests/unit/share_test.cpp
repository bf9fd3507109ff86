#include "src/blocks_share.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

using Piece = std::pair<std::uint64_t, std::uint64_t>; // first record, number of records

struct BlockSplatsTest : testing::Test {
    std::uint64_t before = blockSplats;
    ~BlockSplatsTest() override { blockSplats = before; }
};

std::vector<Piece> blocksOf(std::int64_t vertexCount) {
    std::vector<Piece> blocks;
    forEachBlock(vertexCount,
                 [&](std::uint64_t first, std::uint64_t count) { blocks.emplace_back(first, count); });
    EXPECT_EQ(countBlocks(vertexCount), blocks.size());
    return blocks;
}

TEST_F(BlockSplatsTest, FilesAreCutIntoBlocksOfTwoMillion) {
    EXPECT_EQ(blocksOf(0), std::vector<Piece>{});
    EXPECT_EQ(blocksOf(-1), std::vector<Piece>{});
    EXPECT_EQ(blocksOf(std::numeric_limits<std::int64_t>::min()), std::vector<Piece>{});
    EXPECT_EQ(blocksOf(1), (std::vector<Piece>{{0, 1}}));
    EXPECT_EQ(blocksOf(2'000'000), (std::vector<Piece>{{0, 2'000'000}}));
    EXPECT_EQ(blocksOf(2'000'001), (std::vector<Piece>{{0, 2'000'000}, {2'000'000, 1}}));
    EXPECT_EQ(blocksOf(4'000'000), (std::vector<Piece>{{0, 2'000'000}, {2'000'000, 2'000'000}}));
    EXPECT_EQ(blocksOf(4'000'001),
              (std::vector<Piece>{{0, 2'000'000}, {2'000'000, 2'000'000}, {4'000'000, 1}}));
}

TEST_F(BlockSplatsTest, TheLastBlockHoldsTheRemainder) {
    blockSplats = 3;
    EXPECT_EQ(blocksOf(7), (std::vector<Piece>{{0, 3}, {3, 3}, {6, 1}}));
    EXPECT_EQ(blocksOf(6), (std::vector<Piece>{{0, 3}, {3, 3}}));
}

TEST(WindowQueue, HandsOutEveryRecordOnce) {
    for (const std::uint64_t records : {std::uint64_t{0}, std::uint64_t{1}, windowRecords - 1, windowRecords,
                                        windowRecords + 1, 10 * windowRecords + 7}) {
        WindowQueue windows(records);
        std::vector<Piece> pieces;
        const std::uint64_t taken = windows.takeAll(
            [&](std::uint64_t first, std::uint64_t count) { pieces.emplace_back(first, count); });
        EXPECT_EQ(taken, records);
        EXPECT_TRUE(windows.isEmpty());
        std::uint64_t next = 0;
        for (const auto& [first, count] : pieces) {
            EXPECT_EQ(first, next);
            EXPECT_GT(count, 0u);
            EXPECT_LE(count, windowRecords);
            next += count;
        }
        EXPECT_EQ(next, records);
        EXPECT_EQ(windows.takeAll([](std::uint64_t, std::uint64_t) {}), 0u);
    }
}

TEST(WindowQueue, ThreadsNeverTakeTheSameWindow) {
    constexpr std::uint64_t records = 300 * windowRecords + 5;
    WindowQueue windows(records);
    std::vector<std::atomic<int>> visits(records);
    std::atomic<std::uint64_t> total{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i) {
        threads.emplace_back([&] {
            total += windows.takeAll([&](std::uint64_t first, std::uint64_t count) {
                for (std::uint64_t record = first; record < first + count; ++record) {
                    ++visits[record];
                }
            });
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(total, records);
    EXPECT_TRUE(std::all_of(visits.begin(), visits.end(), [](const auto& count) { return count == 1; }));
}

struct Job {
    struct {
        std::string path;
    } task;
    WindowQueue windows{1};
};

struct SharedBlocksTest : testing::Test {
    support::Scratch scratch;
    std::mutex mutex;
    SharedBlocks<Job> blocks{mutex};

    std::shared_ptr<Job> share(const std::string& name) {
        const auto job = std::make_shared<Job>();
        job->task.path = (scratch / name).string();
        blocks.share(job);
        return job;
    }

    // Helps until nothing is left to do. Returns the number of windows.
    std::uint64_t help() {
        std::uint64_t windows = 0;
        blocks.helpOthers([&](Job& job, RecordReader& reader) {
            EXPECT_TRUE(reader.isOpen());
            windows += job.windows.takeAll([](std::uint64_t, std::uint64_t) {});
        });
        return windows;
    }
};

TEST_F(SharedBlocksTest, HelpGoesToEveryBlockThatHasBegun) {
    support::writeFile(scratch / "file", "x");
    share("file");
    share("file");
    EXPECT_EQ(help(), 2u);
    EXPECT_EQ(help(), 0u);
    EXPECT_TRUE(blocks.running.empty());
}

TEST_F(SharedBlocksTest, BlocksThatWaitComeFirst) {
    support::writeFile(scratch / "file", "x");
    share("file");
    blocks.waiting = 1;
    EXPECT_EQ(help(), 0u);
    blocks.beginOne();
    EXPECT_EQ(help(), 1u);
    blocks.beginOne(); // none waits: nothing to take off
    EXPECT_EQ(blocks.waiting, 0u);
}

TEST_F(SharedBlocksTest, AFileThatCannotBeOpenedAgainIsLeftToItsWorker) {
    const auto job = share("missing");
    EXPECT_EQ(help(), 0u);
    EXPECT_FALSE(job->windows.isEmpty());
}

struct RecordReaderTest : testing::Test {
    support::Scratch scratch;
    std::string path = (scratch / "file").string();

    // The bytes read into a buffer that held other bytes before.
    static std::string read(RecordReader& reader, std::uint64_t offset, std::size_t length) {
        std::string bytes(length, '#');
        reader.read(offset, bytes.data(), length);
        return bytes;
    }
};

TEST_F(RecordReaderTest, ReadsAnyPieceInAnyOrder) {
    support::writeFile(path, "0123456789");
    RecordReader reader(path);
    ASSERT_TRUE(reader.isOpen());
    EXPECT_EQ(read(reader, 0, 10), "0123456789");
    EXPECT_EQ(read(reader, 3, 4), "3456");
    EXPECT_EQ(read(reader, 0, 1), "0");
    EXPECT_EQ(read(reader, 5, 0), "");
}

TEST_F(RecordReaderTest, WhatCannotBeReadIsZeros) {
    support::writeFile(path, "0123456789");
    RecordReader reader(path);
    EXPECT_EQ(read(reader, 8, 5), std::string("89\0\0\0", 5));
    EXPECT_EQ(read(reader, 10, 3), std::string(3, '\0'));
    EXPECT_EQ(read(reader, 1'000'000, 3), std::string(3, '\0'));
    EXPECT_EQ(read(reader, std::uint64_t{1} << 63, 3), std::string(3, '\0'));
    EXPECT_EQ(read(reader, std::numeric_limits<std::uint64_t>::max(), 3), std::string(3, '\0'));
    EXPECT_EQ(read(reader, 2, 3), "234"); // and the reader still works
}

TEST_F(RecordReaderTest, AMissingFileIsNotOpen) {
    EXPECT_FALSE(RecordReader(path).isOpen());
}

#if !defined(_WIN32)
TEST_F(RecordReaderTest, AFolderReadsAsZeros) {
    RecordReader reader(scratch.folder().string());
    EXPECT_EQ(read(reader, 0, 4), std::string(4, '\0'));
}
#endif

} // namespace

} // namespace Tavrin::GaussionSplat
