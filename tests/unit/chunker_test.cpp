#include "src/chunker.h"

#include "src/chunker_pass.h"
#include "src/large_pages.h"
#include "src/runlog.h"
#include "tests/reference/splats.h"
#include "tests/support/deathtest.h"
#include "tests/support/fields.h"
#include "tests/support/files.h"
#include "tests/support/floats.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <limits>
#include <map>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace Tavrin::GaussionSplat {

namespace {

using support::PlyFile;
using support::Random;

constexpr double empty = std::numeric_limits<double>::infinity();
const std::string startLine = "INFO(chunker:37): Start chunking... \n";
const std::string endLine = "INFO(chunker:342): chunking finished . \n";

PlyFile randomFile(std::uint64_t seed, std::size_t count, bool coefficients) {
    Random random(seed);
    PlyFile file;
    file.coefficients = coefficients;
    for (std::size_t i = 0; i < count; ++i) {
        file.add(i % 4 == 3 ? support::awkwardSplat(random) : support::randomSplat(random, 40.0f, 30.0f));
    }
    return file;
}

struct ChunkerTest : testing::Test {
    support::Scratch scratch;
    std::uint64_t blockSplatsBefore = blockSplats;
    std::shared_ptr<AttributeBounding> bounding = std::make_shared<AttributeBounding>();
    std::shared_ptr<BlockList> chunks = std::make_shared<BlockList>();
    std::string logPath = (scratch / "log.txt").string();

    ChunkerTest() { openRunLog(logPath); }
    ~ChunkerTest() override {
        blockSplats = blockSplatsBefore;
        closeRunLog();
        release();
    }

    // Frees the blocks and clears the list.
    void release() {
        releaseBlocks(*chunks,
                      bounding->hasShcoef ? recordSizeWithCoefficients : recordSizeWithoutCoefficients);
        chunks->clear();
    }

    // Writes the file under this name and returns its header.
    SplatHeader write(const PlyFile& file, const std::string& name = "scene.ply") const {
        const std::filesystem::path path = scratch / name;
        file.write(path);
        SplatHeader header;
        header.path = path.string();
        header.headerEnd = static_cast<std::int64_t>(file.header().size());
        header.vertexCount = static_cast<std::int64_t>(file.count());
        header.recordSize = file.coefficients ? recordSizeWithCoefficients : recordSizeWithoutCoefficients;
        header.hasShcoef = file.coefficients;
        return header;
    }

    Chunker chunker(const std::vector<SplatHeader>& headers, std::uint64_t threads = 2) {
        bounding->hasShcoef = headers.front().hasShcoef;
        return {.bounding = {}, .name = {}, .headers = headers, .flag = 1, .threadCount = threads};
    }

    void decode(const std::vector<SplatHeader>& headers, std::uint64_t threads = 2) {
        chunker(headers, threads).doChunking(bounding, chunks, "out");
    }

    std::string log() const { return support::withPlainLineEnds(support::readFile(logPath)); }

    std::vector<std::uint32_t> counts() const {
        std::vector<std::uint32_t> counts;
        for (const std::shared_ptr<ChunkData>& entry : *chunks) {
            counts.push_back(entry->splatCount);
        }
        return counts;
    }

    // All records of the list, one after the other.
    std::vector<float> records() const {
        const std::size_t recordFloats = recordLayout(bounding->hasShcoef).floats;
        std::vector<float> all;
        for (const std::shared_ptr<ChunkData>& entry : *chunks) {
            all.insert(all.end(), entry->data, entry->data + entry->splatCount * recordFloats);
        }
        return all;
    }
};

void expectRange(const AttributeRange& range, const reference::Bounds (&bounds)[3]) {
    const double actual[] = {range.min.x, range.max.x, range.min.y, range.max.y, range.min.z, range.max.z};
    for (std::size_t i = 0; i < 6; ++i) {
        const double expected = i % 2 == 0 ? bounds[i / 2].min : bounds[i / 2].max;
        EXPECT_EQ(actual[i], expected) << range.name;
        EXPECT_EQ(std::signbit(actual[i]), std::signbit(expected)) << range.name;
    }
}

void expectBounding(const AttributeBounding& bounding, const reference::Ranges& ranges) {
    expectRange(bounding.position, ranges.position);
    expectRange(bounding.normal, ranges.normal);
    expectRange(bounding.color, ranges.colour);
    expectRange(bounding.scale, ranges.scale);
    expectRange(bounding.opacity, {ranges.opacity, {}, {}});
    if (bounding.hasShcoef) {
        expectRange(bounding.shcoef, ranges.coefficients);
    } else {
        constexpr reference::Bounds unit{.min = 0.0, .max = 1.0};
        expectRange(bounding.shcoef, {unit, unit, unit});
    }
}

void expectSameFloats(const std::vector<float>& actual, const std::vector<float>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        ASSERT_TRUE(support::sameFloat(actual[i], expected[i]))
            << "float " << i << ": " << support::describe(actual[i]) << " instead of "
            << support::describe(expected[i]);
    }
}

TEST(ChunkData, DeclaresItsFieldsInOrder) {
    const ChunkData block;
    static_assert(std::is_same_v<decltype(ChunkData::splatCount), std::uint32_t>);
    static_assert(std::is_same_v<decltype(ChunkData::level), std::uint32_t>);
    support::expectDeclaredInOrder(
        {{"splatCount", block.splatCount}, {"level", block.level}, {"data", block.data}});
}

TEST(Chunker, DeclaresItsFieldsInOrder) {
    const Chunker chunker;
    support::expectDeclaredInOrder({{"bounding", chunker.bounding},
                                    {"name", chunker.name},
                                    {"headers", chunker.headers},
                                    {"flag", chunker.flag},
                                    {"threadCount", chunker.threadCount}});
    static_assert(std::is_same_v<decltype(Chunker::threadCount), std::uint64_t>);
    const Chunker::Task task;
    support::expectDeclaredInOrder({{"path", task.path},
                                    {"stride", task.stride},
                                    {"count", task.count},
                                    {"first", task.first},
                                    {"offset", task.offset},
                                    {"length", task.length},
                                    {"level", task.level}});
    static_assert(std::is_same_v<decltype(Chunker::Task::stride), std::uint32_t>);
    static_assert(std::is_same_v<decltype(Chunker::Task::count), std::uint64_t>);
    static_assert(std::is_same_v<decltype(Chunker::Task::first), std::uint64_t>);
    static_assert(std::is_same_v<decltype(Chunker::Task::offset), std::uint64_t>);
    static_assert(std::is_same_v<decltype(Chunker::Task::length), std::uint64_t>);
    static_assert(std::is_same_v<decltype(Chunker::Task::level), std::uint32_t>);
}

TEST_F(ChunkerTest, NoVerticesGiveTwoLogLinesAndNoChunk) {
    PlyFile file;
    decode({write(file)});
    EXPECT_TRUE(chunks->empty());
    EXPECT_EQ(log(), startLine + endLine);
    EXPECT_EQ(bounding->position.min.x, empty);
    EXPECT_EQ(bounding->shcoef.max.x, -empty); // only tasks set it
}

TEST_F(ChunkerTest, KeepsItsArguments) {
    Chunker worker = chunker({write(randomFile(50, 3, false))});
    worker.doChunking(bounding, chunks, "some/folder");
    EXPECT_EQ(worker.bounding, bounding);
    EXPECT_EQ(worker.name, "some/folder");
    EXPECT_EQ(worker.headers.size(), 1u);
    EXPECT_EQ(log(), startLine + endLine);
}

TEST_F(ChunkerTest, DecodesEveryRecordInFileOrderWhateverBlocksAndThreads) {
    for (const bool coefficients : {false, true}) {
        const PlyFile file = randomFile(51, 25, coefficients);
        const SplatHeader header = write(file);
        std::vector<float> expected = file.records;
        const reference::Ranges ranges = reference::decodeBlock(expected, coefficients);
        for (const std::uint64_t block : {1u, 3u, 5u, 24u, 25u, 26u}) {
            for (const std::uint64_t threads : {1u, 2u, 7u}) {
                SCOPED_TRACE("blocks of " + std::to_string(block) + ", threads " + std::to_string(threads));
                blockSplats = block;
                release();
                *bounding = AttributeBounding();
                decode({header}, threads);
                std::vector<std::uint32_t> counted(25 / block, static_cast<std::uint32_t>(block));
                if (25 % block != 0) {
                    counted.push_back(static_cast<std::uint32_t>(25 % block));
                }
                EXPECT_EQ(counts(), counted);
                expectSameFloats(records(), expected);
                expectBounding(*bounding, ranges);
            }
        }
    }
}

// Several windows to a block, blocks of unequal size, and more workers than blocks: idle ones help.
TEST_F(ChunkerTest, LongBlocksAreDecodedWholeByManyWorkers) {
    for (const bool coefficients : {false, true}) {
        const PlyFile file = randomFile(52, 12'345, coefficients);
        std::vector<float> expected = file.records;
        const reference::Ranges ranges = reference::decodeBlock(expected, coefficients);
        for (const std::uint64_t block : {5000u, 1'000'000u}) {
            blockSplats = block;
            release();
            *bounding = AttributeBounding();
            decode({write(file)}, 6);
            EXPECT_EQ(chunks->size(), block == 5000 ? 3u : 1u);
            expectSameFloats(records(), expected);
            expectBounding(*bounding, ranges);
        }
    }
}

// Of two zeros, which compare equal, the one that is visited first stays.
TEST_F(ChunkerTest, TheFirstOfTwoEqualBoundsStays) {
    for (const float first : {0.0f, -0.0f}) {
        PlyFile file;
        file.coefficients = true;
        for (int i = 0; i < 9; ++i) {
            support::Splat splat;
            const float zero = i == 0 ? first : -first;
            splat.position = {zero, zero, zero};
            splat.normal = {zero, zero, zero};
            splat.rest.fill(-first);
            splat.rest[0] = splat.rest[15] = splat.rest[30] = zero;
            file.add(splat);
        }
        const SplatHeader header = write(file);
        for (const std::uint64_t block : {1u, 2u, 9u}) {
            blockSplats = block;
            release();
            *bounding = AttributeBounding();
            decode({header}, 5);
            for (const AttributeRange* range : {&bounding->position, &bounding->normal, &bounding->shcoef}) {
                for (const double bound : {range->min.x, range->max.y, range->min.z}) {
                    EXPECT_EQ(bound, 0.0);
                    EXPECT_EQ(std::signbit(bound), std::signbit(first))
                        << range->name << " in blocks of " << block;
                }
            }
        }
    }
}

TEST_F(ChunkerTest, RecordZeroIsDecodedFromItsInputOnce) {
    PlyFile file;
    support::Splat splat;
    splat.scale = {1.0f, 0.0f, -2.0f};
    splat.opacity = 1.0f;
    splat.dc = {1.0f, -1.0f, 0.0f};
    file.add(splat);
    decode({write(file)});
    const std::vector<float> decoded = records();
    EXPECT_EQ(decoded[10], reference::scale(1.0f));
    EXPECT_EQ(decoded[11], 1.0f);
    EXPECT_EQ(decoded[9], reference::opacity(1.0f));
    EXPECT_EQ(decoded[6], reference::colour(1.0f));
}

TEST_F(ChunkerTest, WithoutCoefficientsTheirRangeIsZeroToOne) {
    decode({write(randomFile(53, 4, false))});
    EXPECT_EQ(bounding->shcoef.min.x, 0.0);
    EXPECT_EQ(bounding->shcoef.max.z, 1.0);
}

TEST_F(ChunkerTest, OnlyXOfTheOpacityRangeIsSet) {
    decode({write(randomFile(54, 4, true))});
    EXPECT_LE(bounding->opacity.min.x, bounding->opacity.max.x);
    for (const double untouched : {bounding->opacity.min.y, bounding->opacity.min.z}) {
        EXPECT_EQ(untouched, empty);
    }
    for (const double untouched : {bounding->opacity.max.y, bounding->opacity.max.z}) {
        EXPECT_EQ(untouched, -empty);
    }
}

TEST_F(ChunkerTest, RangesThatAreThereAreWidened) {
    PlyFile file;
    file.add(support::Splat());
    bounding->position.min = {-5.0, -5.0, -5.0};
    bounding->normal.max = {9.0, -9.0, 9.0};
    decode({write(file)});
    EXPECT_EQ(bounding->position.min.x, -5.0);
    EXPECT_EQ(bounding->position.max.x, 0.0);
    EXPECT_EQ(bounding->normal.max.x, 9.0);
    EXPECT_EQ(bounding->normal.max.y, 0.0);
}

TEST_F(ChunkerTest, EveryHeaderOfTheListIsReadWithItsLevel) {
    blockSplats = 3;
    const PlyFile first = randomFile(55, 4, true);
    const PlyFile second = randomFile(56, 2, true);
    SplatHeader low = write(first, "first.ply");
    SplatHeader high = write(second, "second.ply");
    low.level = 7;
    high.level = 4'000'000'000;
    decode({low, high});
    EXPECT_EQ(counts(), (std::vector<std::uint32_t>{3, 1, 2}));
    EXPECT_EQ((*chunks)[0]->level, 7u);
    EXPECT_EQ((*chunks)[1]->level, 7u);
    EXPECT_EQ((*chunks)[2]->level, 4'000'000'000u);
    std::vector<float> expected = first.records;
    expected.insert(expected.end(), second.records.begin(), second.records.end());
    expectBounding(*bounding, reference::decodeBlock(expected, true));
    expectSameFloats(records(), expected);
}

TEST_F(ChunkerTest, EntriesThatAreInTheListStayInFront) {
    const auto before = std::make_shared<ChunkData>();
    chunks->push_back(before);
    blockSplats = 1;
    decode({write(randomFile(57, 3, false))});
    ASSERT_EQ(chunks->size(), 4u);
    EXPECT_EQ(chunks->front(), before);
}

TEST_F(ChunkerTest, AMissingFileCostsItsBlocksAlone) {
    blockSplats = 2;
    const PlyFile file = randomFile(58, 3, false);
    SplatHeader missing = write(file, "gone.ply");
    std::filesystem::remove(missing.path);
    SplatHeader there = write(file, "there.ply");
    const std::string output = support::withPlainLineEnds(support::standardOutputOf([&] {
        decode({missing, there});
    }));
    EXPECT_EQ(counts(), (std::vector<std::uint32_t>{2, 1}));
    std::vector<float> expected = file.records;
    expectBounding(*bounding, reference::decodeBlock(expected, false));
    expectSameFloats(records(), expected);
    const std::string error = "ERROR(chunker:61): file cannot open \n";
    EXPECT_EQ(log(), startLine + error + error + endLine);
    EXPECT_EQ(output, error + error);
}

TEST_F(ChunkerTest, AMissingFileLeavesTheRangesEmpty) {
    SplatHeader missing = write(randomFile(59, 3, false));
    std::filesystem::remove(missing.path);
    support::standardOutputOf([&] { decode({missing}); });
    EXPECT_TRUE(chunks->empty());
    EXPECT_EQ(bounding->shcoef.min.x, empty);
    EXPECT_EQ(bounding->scale.max.y, -empty);
}

// Every float beyond the end of the file is zero, and so are the missing bytes of a float that is cut.
TEST_F(ChunkerTest, ACutFileIsFilledUpWithZeros) {
    const PlyFile file = randomFile(60, 5, false);
    const SplatHeader header = write(file);
    const std::string whole = file.bytes();
    for (std::size_t length = 0; length <= whole.size(); length += 23) {
        support::writeFile(header.path, std::string_view(whole).substr(0, length));
        std::string body = whole.substr(0, length);
        body.resize(whole.size(), '\0');
        std::vector<float> expected(file.records.size());
        std::memcpy(expected.data(), body.data() + header.headerEnd, expected.size() * sizeof(float));
        reference::decodeBlock(expected, false);
        blockSplats = length % 2 == 0 ? 2 : 5;
        release();
        decode({header}, 1);
        expectSameFloats(records(), expected);
        if (HasFailure()) {
            return;
        }
    }
}

// Expects blocks of the library's own size. The file is sparse except for the records at the block borders.
void expectBlocksOfTwoMillion(const ChunkerTest& test, SplatHeader header, const BlockList& chunks) {
    ASSERT_EQ(test.counts(), (std::vector<std::uint32_t>{2'000'000, 2'000'000, 1}));
    const std::size_t recordFloats = header.recordSize / sizeof(float);
    EXPECT_EQ(chunks[0]->data[0], 1.0f);
    EXPECT_EQ(chunks[0]->data[1'999'999 * recordFloats], 2.0f);
    EXPECT_EQ(chunks[1]->data[0], 3.0f);
    EXPECT_EQ(chunks[1]->data[1'999'999 * recordFloats], 4.0f);
    EXPECT_EQ(chunks[2]->data[0], 5.0f);
    for (const std::shared_ptr<ChunkData>& block : chunks) { // a scene with a grid: counted, all in one cell
        ASSERT_NE(block->cells, nullptr);
        ASSERT_EQ(block->cells->counter.counts().size(), 1u);
        EXPECT_EQ(block->cells->counter.counts()[0].splats, block->splatCount);
    }
}

struct CellCountTest : ChunkerTest {
    ChunkGrid gridBefore = chunkGrid;

    CellCountTest() {
        chunkGrid = {.cellSizeX = 5.0f, .cellSizeY = 4.0f, .originX = -10.0f, .originY = -10.0f};
    }
    ~CellCountTest() override { chunkGrid = gridBefore; }
};

TEST_F(CellCountTest, SplatsAreCountedByCellWhenAsked) {
    const PlyFile file = randomFile(61, 3000, false);
    const SplatHeader header = write(file);
    bounding->hasShcoef = false;
    std::vector<std::uint32_t> keys;
    std::map<std::uint32_t, std::uint64_t> expected;
    for (std::size_t at = 0; at < file.records.size(); at += layoutWithoutCoefficients.floats) {
        keys.push_back(
            reference::cellKey(file.records[at], file.records[at + 1],
                               {.originX = -10.0f, .originY = -10.0f, .cellSizeX = 5.0f, .cellSizeY = 4.0f}));
        ++expected[keys.back()];
    }
    DecodePass pass(bounding, chunks);
    pass.countsCells = true;
    Chunker::Task task;
    task.path = header.path;
    task.stride = header.recordSize;
    task.count = file.count();
    task.offset = static_cast<std::uint64_t>(header.headerEnd);
    task.length = task.stride * task.count;
    decodeBlock(task, pass);
    std::map<std::uint32_t, std::uint64_t> actual;
    for (const CellCount& cell : chunks->front()->cells->counter.counts()) {
        actual[cell.key] += cell.splats;
    }
    EXPECT_EQ(actual, expected);
    EXPECT_EQ(chunks->front()->cells->grid, chunkGrid);
    const std::uint32_t* const found = chunks->front()->cells->keys.get();
    EXPECT_EQ(std::vector<std::uint32_t>(found, found + file.count()), keys);
}

// 20,000 records of 288 bytes take 4.4 MB more than those of 68 bytes: two huge pages.
TEST_F(ChunkerTest, ABlockBringsTheMemoryThatItsRecordsWillTakeBeyondIt) {
    decode({write(randomFile(63, 20'000, false)), write(randomFile(64, 100, false), "small.ply")});
    ASSERT_EQ(chunks->size(), 2u);
    EXPECT_EQ(chunks->back()->room, nullptr);
    const LargeArray<std::byte>& room = chunks->front()->room;
    if (!largePagesMove()) {
        EXPECT_EQ(room, nullptr);
        return;
    }
    ASSERT_NE(room, nullptr);
    ASSERT_EQ(room.get_deleter().bytes, 2 * largePage);
#if defined(__linux__)
    std::vector<unsigned char> present(2 * largePage / 4096);
    ASSERT_EQ(mincore(room.get(), 2 * largePage, present.data()), 0);
    EXPECT_TRUE(std::all_of(present.begin(), present.end(), [](unsigned char page) { return page != 0; }));
#endif
}

TEST_F(CellCountTest, ScenesOfOneCellAreNotCounted) {
    decode({write(randomFile(62, 10, false))});
    EXPECT_EQ(chunks->front()->cells, nullptr);
}

TEST_F(ChunkerTest, FourMillionAndOneSplatsAreThreeBlocks) {
    ASSERT_EQ(blockSplats, 2'000'000u);
    PlyFile file;
    SplatHeader header = write(file);
    header.vertexCount = 4'000'001;
    const auto recordAt = [&](std::uint64_t record) {
        return static_cast<std::uint64_t>(header.headerEnd) + record * header.recordSize;
    };
    std::filesystem::resize_file(header.path, recordAt(4'000'001));
    EXPECT_EQ(recordAt(2'000'000), 136'000'000u + static_cast<std::uint64_t>(header.headerEnd));
    std::fstream bytes(header.path, std::ios::binary | std::ios::in | std::ios::out);
    const std::pair<std::uint64_t, float> marks[] = {
        {0, 1.0f}, {1'999'999, 2.0f}, {2'000'000, 3.0f}, {3'999'999, 4.0f}, {4'000'000, 5.0f}};
    for (const auto& [record, x] : marks) {
        bytes.seekp(static_cast<std::streamoff>(recordAt(record)));
        bytes.write(reinterpret_cast<const char*>(&x), sizeof x);
    }
    bytes.close();
    decode({header});
    expectBlocksOfTwoMillion(*this, header, *chunks);
    EXPECT_EQ(bounding->position.max.x, 5.0);
}

TEST_F(ChunkerTest, ATaskWithoutLengthEndsTheProcess) {
    struct Row {
        std::uint64_t length;
        const char* digits;
    };
    const Row rows[] = {{0, "0"}, {static_cast<std::uint64_t>(std::int64_t{-68}), "-68"}};
    for (const Row& row : rows) {
        const std::string line = std::string("ERROR(chunker:55): invalid malloc size: ") + row.digits + "\n";
        EXPECT_PROCESS_EXIT(
            {
                openRunLog(logPath);
                DecodePass pass(bounding, chunks);
                Chunker::Task task;
                task.count = 1;
                task.length = row.length;
                decodeBlock(task, pass);
            },
            123, "^ERROR.chunker:55.: invalid malloc size: " + std::string(row.digits) + "\n$");
        EXPECT_EQ(log(), line); // of the process that ended, which ran this test in the same folder
    }
}

#if !defined(_WIN32)
TEST_F(ChunkerTest, AThreadThatCannotStartLeavesAsTheStandardSystemError) {
    const SplatHeader header = write(randomFile(63, 4, false));
    EXPECT_PROCESS_EXIT(
        {
            support::limitThreads();
            try {
                decode({header}, 1000);
            } catch (const std::system_error& error) {
                std::cout << (error.code() == std::errc::resource_unavailable_try_again ? "unavailable"
                                                                                        : "another")
                          << std::endl;
            }
            std::_Exit(9);
        },
        9, "^unavailable\n$");
    EXPECT_EQ(log(), startLine); // of the process that ended
}
#endif

TEST_F(ChunkerTest, ReleasingTheListFreesTheBlocksThatAreLeft) {
    const auto full = std::make_shared<ChunkData>();
    full->splatCount = 1;
    // The leak check would see it.
    full->data = static_cast<float*>(allocateLarge(recordSizeWithoutCoefficients));
    BlockList list = {full, nullptr, std::make_shared<ChunkData>()};
    releaseBlocks(list, recordSizeWithoutCoefficients);
    EXPECT_EQ(list, BlockList(3));
}

} // namespace

} // namespace Tavrin::GaussionSplat
