#include "tests/support/files.h"

#include "src/indexer.h"
#include "src/indexer_files.h"
#include "src/runlog.h"
#include "tests/support/deathtest.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <string>
#include <unordered_set>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

using Keys = std::unordered_set<std::uint32_t>;

constexpr std::uint64_t single = 1'000'000; // the most splats of one cell
constexpr std::uint64_t grid = 1'000'001;

// A record of recognisable bytes: each differs from the next, and from those of other records.
SplatsData numberedRecord(std::uint32_t number) {
    SplatsData record;
    std::array<std::uint8_t, sizeof record> bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<std::uint8_t>(number * 67 + i * 3 + i / 64);
    }
    std::memcpy(&record, bytes.data(), sizeof record);
    return record;
}

// One level of one cell in the index.
struct LevelEntry {
    std::uint32_t count;
    std::uint64_t offset;
    std::uint32_t size;
};

template <typename Value>
std::string littleEndian(Value value) {
    std::string bytes;
    for (std::size_t i = 0; i < sizeof value; ++i) {
        bytes += static_cast<char>(value >> (8 * i) & 0xFF);
    }
    return bytes;
}

std::string indexEntry(std::uint32_t key, const std::vector<LevelEntry>& levels) {
    std::string bytes = littleEndian(key);
    for (const LevelEntry& level : levels) {
        bytes += littleEndian(level.count) + littleEndian(level.offset) + littleEndian(level.size);
    }
    return bytes;
}

struct FilesTest : testing::Test {
    support::Scratch scratch;
    ChunkGrid gridBefore = chunkGrid;
    Indexer indexer{std::vector<SplatHeader>(1), scratch.folder().string()};
    std::uint32_t nextNumber = 0;

    FilesTest() {
        chunkGrid = {.cellSizeX = 30.0f, .cellSizeY = 30.0f, .cellCountX = 4, .cellCountY = 3};
        indexer.bounding = std::make_shared<AttributeBounding>();
        indexer.splatCount = grid;
        openRunLog((scratch / "log.txt").string());
    }
    ~FilesTest() override {
        closeRunLog();
        chunkGrid = gridBefore;
    }

    // Puts `count` new records into a cell.
    void fill(std::uint32_t level, std::uint32_t key, std::uint32_t count) {
        std::shared_ptr<LODData>& lod = (*indexer.levels)[level];
        if (!lod) {
            lod = std::make_shared<LODData>();
        }
        std::shared_ptr<SplatCell>& cell = (*lod->cells)[key];
        if (!cell) {
            cell = std::make_shared<SplatCell>();
        }
        for (std::uint32_t i = 0; i < count; ++i) {
            cell->push_back(numberedRecord(nextNumber++));
        }
        lod->splatCount += count;
    }

    // Writes the data files and returns the text on standard output.
    std::string write() {
        return support::withPlainLineEnds(support::standardOutputOf([&] { indexer.writeDataFiles(); }));
    }

    std::string file(const char* name) const { return support::readFile(scratch / name); }
    std::string log() const { return support::withPlainLineEnds(file("log.txt")); }

    std::string index() const {
        return {reinterpret_cast<const char*>(indexer.indexBuffer.get()), indexer.indexBufferSize};
    }

    // Bytes [from, from + size) of each of these records, concatenated.
    static std::string pieces(const std::vector<std::uint32_t>& numbers, std::size_t from, std::size_t size) {
        std::string bytes;
        for (const std::uint32_t number : numbers) {
            const SplatsData record = numberedRecord(number);
            bytes.append(reinterpret_cast<const char*>(&record) + from, size);
        }
        return bytes;
    }

    void expectFiles(const std::vector<std::uint32_t>& numbers) const {
        EXPECT_EQ(file("data.bin"), pieces(numbers, 0, 32));
        if (!indexer.bounding->hasShcoef) {
            EXPECT_FALSE(std::filesystem::exists(scratch / "shcoef.bin"));
        } else if (indexer.compressed != 0) {
            EXPECT_EQ(file("shcoef.bin"), pieces(numbers, 32, 64));
        } else {
            EXPECT_EQ(file("shcoef.bin"), pieces(numbers, 96, 192));
        }
    }
};

TEST_F(FilesTest, OneCellOfPackedRecords) {
    indexer.splatCount = single;
    fill(0, 0, 3);
    EXPECT_EQ(write(), "\n\n");
    expectFiles({0, 1, 2});
    EXPECT_EQ(indexer.indexEntrySize, 20u);
    EXPECT_EQ(indexer.indexBufferSize, 20u);
    EXPECT_EQ(index(), indexEntry(0, {{3, 0, 96}}));
}

TEST_F(FilesTest, WithoutCoefficientsThereIsNoCoefficientFile) {
    indexer.bounding->hasShcoef = false;
    fill(0, 1, 2);
    write();
    expectFiles({0, 1});
    EXPECT_EQ(log(), "INFO(indexer:827): Data create finished , free file stream... \n"
                     "INFO(indexer:832): Data create finished , free file stream success.\n");
}

TEST_F(FilesTest, WithCoefficientsTheLogLinesHaveTheirOwnNumbers) {
    fill(0, 1, 2);
    write();
    EXPECT_EQ(log(), "INFO(indexer:694): Data create finished , free file stream... \n"
                     "INFO(indexer:701): Data create finished , free file stream success.\n");
}

TEST_F(FilesTest, TheRawFormTakesTheUnpackedCoefficients) {
    indexer.compressed = 0;
    fill(0, 2, 2);
    fill(0, 0, 1);
    write();
    expectFiles({2, 0, 1});
    EXPECT_EQ(file("shcoef.bin").size(), 3u * 192);
}

TEST_F(FilesTest, CellsFollowEachOtherColumnByColumn) {
    const std::uint32_t keys[] = {3, 1u << 16 | 1, 0, 2u << 16, 1, 2u << 16 | 3};
    for (const std::uint32_t key : keys) {
        fill(0, key, 1); // record i in keys[i]
    }
    EXPECT_EQ(write(), std::string(2 * 6, '\n'));
    expectFiles({2, 3, 4, 1, 0, 5});
    EXPECT_EQ(index(), indexEntry(0, {{1, 0, 32}}) + indexEntry(2u << 16, {{1, 32, 32}}) +
                           indexEntry(1, {{1, 64, 32}}) + indexEntry(1u << 16 | 1, {{1, 96, 32}}) +
                           indexEntry(3, {{1, 128, 32}}) + indexEntry(2u << 16 | 3, {{1, 160, 32}}));
}

TEST_F(FilesTest, CellsOfUnequalSizeLieBehindEachOther) {
    fill(0, 0, 5);
    fill(0, 1, 1);
    fill(0, 2, 7);
    write();
    expectFiles({0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
    EXPECT_EQ(index(),
              indexEntry(0, {{5, 0, 160}}) + indexEntry(1, {{1, 160, 32}}) + indexEntry(2, {{7, 192, 224}}));
}

// Cells with negative indices or beyond the counts are not written.
TEST_F(FilesTest, CellsOutsideTheWalkAreLeftOut) {
    fill(0, 0xFFFFFFFF, 2);
    fill(0, 4, 2);        // column 4 of 4
    fill(0, 3u << 16, 2); // row 3 of 3
    fill(0, 2, 1);
    write();
    expectFiles({6});
    EXPECT_EQ(index(), indexEntry(2, {{1, 0, 32}}));
    EXPECT_EQ(indexer.levels->at(0)->cells->at(4)->size(), 2u); // they stay in memory
}

TEST_F(FilesTest, AnEmptyCellListGivesEmptyFiles) {
    fill(0, 0xFFFFFFFF, 2);
    EXPECT_EQ(write(), "");
    expectFiles({});
    EXPECT_EQ(indexer.indexEntrySize, 20u);
    EXPECT_EQ(indexer.indexBufferSize, 0u);
    indexer.writeIndexFile();
    EXPECT_EQ(file("index.bin"), "");
}

TEST_F(FilesTest, TheSingleCellIsListedWithoutAnySplats) {
    indexer.splatCount = single;
    (*indexer.levels)[0] = std::make_shared<LODData>();
    EXPECT_EQ(write(), "\n\n");
    expectFiles({});
    EXPECT_EQ(index(), indexEntry(0, {{0, 0, 0}}));
}

TEST_F(FilesTest, TheSingleCellIgnoresTheGrid) {
    indexer.splatCount = single;
    fill(0, 1, 2); // no such cell is looked for
    fill(0, 0, 1);
    write();
    expectFiles({2});
    EXPECT_EQ(index(), indexEntry(0, {{1, 0, 32}}));
}

TEST_F(FilesTest, SeveralLevelsLieBehindEachOtherWithinACell) {
    for (const std::int32_t totalLevel : {2, 3}) {
        *indexer.levels = LevelMap();
        nextNumber = 0;
        indexer.totalLevel = totalLevel;
        fill(0, 0, 2);
        fill(0, 1, 1);
        fill(1, 0, 3);
        fill(1, 2, 1); // in no cell of level 0: never written
        fill(2, 1, 2);
        EXPECT_EQ(write(), std::string(static_cast<std::size_t>(2 * 2 * totalLevel), '\n'));
        EXPECT_EQ(indexer.indexEntrySize, static_cast<std::uint32_t>(16 * totalLevel + 4));
        if (totalLevel == 2) {
            expectFiles({0, 1, 3, 4, 5, 2});
            EXPECT_EQ(index(),
                      indexEntry(0, {{2, 0, 64}, {3, 64, 96}}) + indexEntry(1, {{1, 160, 32}, {0, 0, 0}}));
        } else {
            expectFiles({0, 1, 3, 4, 5, 2, 7, 8});
            EXPECT_EQ(index(), indexEntry(0, {{2, 0, 64}, {3, 64, 96}, {0, 0, 0}}) +
                                   indexEntry(1, {{1, 160, 32}, {0, 0, 0}, {2, 192, 64}}));
        }
    }
}

TEST_F(FilesTest, LevelsFromTotalLevelUpAreNotWritten) {
    fill(0, 0, 1);
    fill(1, 0, 5);
    fill(7, 0, 5);
    write();
    expectFiles({0});
    EXPECT_EQ(index(), indexEntry(0, {{1, 0, 32}}));
    EXPECT_EQ(indexer.levels->at(1)->cells->at(0)->size(), 5u);
}

TEST_F(FilesTest, WrittenCellsAreEmptiedAndKeepTheirRoom) {
    fill(0, 0, 9);
    fill(0, 1, 1);
    const std::size_t capacity = indexer.levels->at(0)->cells->at(0)->capacity();
    write();
    EXPECT_EQ(indexer.levels->at(0)->cells->at(0)->size(), 0u);
    EXPECT_EQ(indexer.levels->at(0)->cells->at(0)->capacity(), capacity);
    EXPECT_EQ(indexer.levels->at(0)->cells->at(1)->size(), 0u);
    EXPECT_EQ(indexer.levels->at(0)->splatCount, 10u);
}

// On a grid of more than 65,536 columns the walk finds a key a second time, after its cell has been written.
TEST_F(FilesTest, AKeyThatTheWalkMeetsTwiceIsListedTwice) {
    chunkGrid.cellCountX = 65'537;
    chunkGrid.cellCountY = 2;
    fill(0, 0x10000, 2); // row 1 of column 0, and row 0 (or 1) of column 65,536
    fill(0, 1, 1);
    EXPECT_EQ(write(), std::string(2 * 4, '\n'));
    expectFiles({0, 1, 2});
    EXPECT_EQ(index(), indexEntry(0x10000, {{2, 0, 64}}) + indexEntry(1, {{1, 64, 32}}) +
                           indexEntry(0x10000, {{0, 96, 0}}) + indexEntry(0x10000, {{0, 96, 0}}));
}

TEST_F(FilesTest, FilesThatStandThereAreReplaced) {
    for (const char* name : {"data.bin", "shcoef.bin", "index.bin"}) {
        support::writeFile(scratch / name, std::string(5000, 'x'));
    }
    fill(0, 0, 1);
    write();
    indexer.writeIndexFile();
    expectFiles({0});
    EXPECT_EQ(file("index.bin").size(), 20u);
}

TEST_F(FilesTest, TheIndexFileIsTheBufferAndTheBufferIsFreed) {
    fill(0, 0, 2);
    fill(0, 1, 2);
    write();
    const std::string entries = index();
    indexer.writeIndexFile();
    EXPECT_EQ(file("index.bin"), entries);
    EXPECT_EQ(file("index.bin").size(), 40u);
    EXPECT_EQ(indexer.indexBuffer, nullptr);
}

TEST_F(FilesTest, FileNamesAreAppendedToTheFolderAsItStands) {
    indexer.outputFolder += "/"; // a doubled separator
    fill(0, 0, 1);
    write();
    indexer.writeIndexFile();
    expectFiles({0});
    EXPECT_EQ(file("index.bin").size(), 20u);
}

TEST_F(FilesTest, WithoutLevelZeroTheProcessEnds) {
    fill(1, 0, 1);
    EXPECT_PROCESS_EXIT(indexer.writeDataFiles(), support::statusMinusOne,
                        "^ERROR.indexer:548.: cannot GET lod0 data\n$");
    indexer.bounding->hasShcoef = false;
    EXPECT_PROCESS_EXIT(indexer.writeDataFiles(), support::statusMinusOne,
                        "^ERROR.indexer:708.: cannot GET lod0 data\n$");
}

// A folder stands where the file should go.
struct BlockedFileTest : FilesTest {
    void block(const char* name) {
        fill(0, 0, 1);
        std::filesystem::create_directory(scratch / name);
    }
};

TEST_F(BlockedFileTest, DataThatCannotBeOpenedEndsTheProcess) {
    block("data.bin");
    EXPECT_PROCESS_EXIT(indexer.writeDataFiles(), support::statusMinusOne,
                        "^ERROR.indexer:533.: cannot open data bin file,write file fail\n$");
}

TEST_F(BlockedFileTest, CoefficientsThatCannotBeOpenedEndTheProcess) {
    block("shcoef.bin");
    EXPECT_PROCESS_EXIT(indexer.writeDataFiles(), support::statusMinusOne,
                        "^ERROR.indexer:541.: cannot open data bin file,write file fail\n$");
}

TEST_F(BlockedFileTest, AnIndexThatCannotBeOpenedEndsTheProcess) {
    block("index.bin");
    EXPECT_PROCESS_EXIT(indexer.writeIndexFile(), support::statusMinusOne,
                        "^ERROR.indexer:850.: cannot open data bin file,write file fail\n$");
}

#if defined(__linux__)
TEST_F(FilesTest, FailingWritesAreNotNoticed) {
    for (const char* name : {"data.bin", "shcoef.bin", "index.bin"}) {
        std::filesystem::create_symlink("/dev/full", scratch / name);
    }
    fill(0, 0, 5000);
    EXPECT_EQ(write(), "\n\n");
    indexer.writeIndexFile();
    EXPECT_EQ(log(), "INFO(indexer:694): Data create finished , free file stream... \n"
                     "INFO(indexer:701): Data create finished , free file stream success.\n");
}
#endif

// The walk in its plain form: every column, every row, and each key that the level has.
std::vector<std::uint32_t> plainWalk(const ChunkGrid& walked, const Keys& keys) {
    std::vector<std::uint32_t> found;
    for (std::int32_t cx = 0; cx < walked.cellCountX; ++cx) {
        for (std::int32_t cy = 0; cy < walked.cellCountY; ++cy) {
            const std::uint32_t key = static_cast<std::uint32_t>(cx) | static_cast<std::uint32_t>(cy) << 16;
            if (keys.count(key) > 0) {
                found.push_back(key);
            }
        }
    }
    return found;
}

void expectWalk(std::int32_t columns, std::int32_t rows, const Keys& keys) {
    const ChunkGrid walked{.cellCountX = columns, .cellCountY = rows};
    LODData level;
    for (const std::uint32_t key : keys) {
        level.cells->emplace(key, std::make_shared<SplatCell>());
    }
    const std::vector<std::uint32_t> found = plainWalk(walked, keys);
    EXPECT_EQ(walkGrid(walked, level), found) << columns << " columns, " << rows << " rows";
    for (const std::uint32_t key : keys) {
        const auto steps = static_cast<std::uint64_t>(std::count(found.begin(), found.end(), key));
        EXPECT_EQ(countSteps(walked, key), steps)
            << key << " of " << columns << " columns, " << rows << " rows";
    }
}

TEST(WalkGrid, SmallGrids) {
    support::Random random(90);
    for (int round = 0; round < 2000; ++round) {
        Keys keys;
        for (std::uint64_t cells = random.next() % 30; cells > 0; --cells) {
            const auto column = static_cast<std::uint32_t>(random.next() % 12);
            const auto row = static_cast<std::uint32_t>(random.next() % 12);
            keys.insert(column | row << 16);
        }
        expectWalk(static_cast<std::int32_t>(random.next() % 12),
                   static_cast<std::int32_t>(random.next() % 12), keys);
    }
}

TEST(WalkGrid, CountsOfZeroOrLessFindNothing) {
    const Keys keys = {0, 1, 1u << 16};
    for (const std::int32_t count : {0, -1, -2'000'000'000}) {
        expectWalk(count, 5, keys);
        expectWalk(5, count, keys);
        expectWalk(count, count, keys);
    }
}

// Keys near the places where column and row share bits of the high half.
Keys sharedBitKeys(support::Random& random) {
    Keys keys = {0, 1, 0xFFFF, 0x10000, 0x1FFFF, 0xFFFF0000, 0xFFFFFFFF};
    for (int i = 0; i < 30; ++i) {
        const auto low = static_cast<std::uint32_t>(random.next() % 40);
        const auto high = static_cast<std::uint32_t>(random.next() % 40);
        keys.insert(low | high << 16);
        keys.insert(static_cast<std::uint32_t>(random.next()));
    }
    return keys;
}

TEST(WalkGrid, MoreThan65536Columns) {
    support::Random random(91);
    for (const std::int32_t columns : {65'535, 65'536, 65'537, 200'001}) {
        for (const std::int32_t rows : {1, 2, 3, 8}) {
            expectWalk(columns, rows, sharedBitKeys(random));
        }
    }
    expectWalk(1'000'003, 2, sharedBitKeys(random));
}

TEST(WalkGrid, MoreThan65536Rows) {
    support::Random random(92);
    for (const std::int32_t rows : {65'536, 65'537, 131'080, 200'001}) {
        for (const std::int32_t columns : {1, 2, 5}) {
            expectWalk(columns, rows, sharedBitKeys(random));
        }
    }
}

// More cells than any loop over the grid could visit. Each key belongs to one cell only.
TEST(WalkGrid, FarStretchedGridsAreWalkedOverTheirCells) {
    const ChunkGrid walked{.cellCountX = 0x10000, .cellCountY = 0x10000};
    LODData level;
    for (const std::uint32_t key : {0xFFFFFFFFu, 0u, 0xFFFF0000u, 0xFFFFu}) {
        level.cells->emplace(key, std::make_shared<SplatCell>());
    }
    EXPECT_EQ(walkGrid(walked, level), (std::vector<std::uint32_t>{0, 0xFFFF0000, 0xFFFF, 0xFFFFFFFF}));
}

// More steps than any memory holds.
TEST(WalkGrid, StepsAreCountedWithoutTakingThem) {
    const ChunkGrid largest{.cellCountX = INT32_MAX, .cellCountY = INT32_MAX};
    EXPECT_EQ(countSteps(largest, 0), 0x8000u);
    EXPECT_EQ(countSteps(largest, 0x1'0000), 3 * 0x8000u);
    EXPECT_EQ(countSteps(largest, 0x3'0000), 9 * 0x8000u);
    // 3 to the power of 15, but for the row 0x7FFF'FFFF, which is missing for each of the columns.
    EXPECT_EQ(countSteps(largest, 0xFFFF'0000), std::uint64_t{14'348'907} * 0x8000 - 0x8000);
}

} // namespace

} // namespace Tavrin::GaussionSplat
