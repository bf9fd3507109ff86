#include "src/indexer.h"
#include "src/indexer_quantise.h"
#include "tests/reference/splats.h"
#include "tests/support/deathtest.h"
#include "tests/support/fields.h"
#include "tests/support/floats.h"
#include "tests/support/sanitizers.h"
#include "tests/unit/indexer_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <unordered_map>
#include <vector>

#if defined(__linux__)
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>
#endif

namespace Tavrin::GaussionSplat {

namespace {

using support::Random;

// Records by cell key, each with its bytes in the files, in the order of insertion.
using Cells = std::map<std::uint32_t, std::vector<std::string>>;

template <std::size_t Size>
std::string textOf(const std::array<std::uint8_t, Size>& bytes) {
    return {bytes.begin(), bytes.end()};
}

struct BuildTest : testing::Test {
    ChunkGrid gridBefore = chunkGrid;
    Indexer indexer{std::vector<SplatHeader>(1), "unused"};

    BuildTest() {
        chunkGrid = {.cellSizeX = 10.0f,
                     .cellSizeY = 15.0f,
                     .originX = -40.0f,
                     .originY = -40.0f,
                     .cellCountX = 9,
                     .cellCountY = 6};
        indexer.chunks = std::make_shared<BlockList>();
    }
    ~BuildTest() override {
        releaseBlocks(*indexer.chunks, recordSizeWithCoefficients);
        chunkGrid = gridBefore;
    }

    // Build the index of decoded blocks, for a scene of splatCount splats.
    void build(const std::vector<std::vector<float>>& blocks, bool hasCoefficients, std::uint64_t splatCount,
               const std::vector<std::uint32_t>& levels = {}) {
        reference::Ranges ranges;
        for (std::size_t i = 0; i < blocks.size(); ++i) {
            indexer.chunks->push_back(blockOf(blocks[i], hasCoefficients, levels.empty() ? 0 : levels[i]));
            for (std::size_t at = 0; at < blocks[i].size(); at += recordLayout(hasCoefficients).floats) {
                ranges.widen(blocks[i].data() + at, hasCoefficients);
            }
        }
        scene = ranges;
        indexer.bounding = boundingOf(ranges, hasCoefficients);
        indexer.splatCount = splatCount;
        indexer.buildIndex();
    }

    // The expected records of the cells of these blocks.
    Cells expected(const std::vector<std::vector<float>>& blocks, bool hasCoefficients, bool single) const {
        Cells cells;
        for (const std::vector<float>& block : blocks) {
            for (std::size_t at = 0; at < block.size(); at += recordLayout(hasCoefficients).floats) {
                const float* const splat = block.data() + at;
                const std::uint32_t key = single ? 0
                                                 : reference::cellKey(splat[0], splat[1],
                                                                      {.originX = chunkGrid.originX,
                                                                       .originY = chunkGrid.originY,
                                                                       .cellSizeX = chunkGrid.cellSizeX,
                                                                       .cellSizeY = chunkGrid.cellSizeY});
                const reference::Quantised record = reference::quantise(splat, hasCoefficients, scene);
                std::string text = textOf(record.data);
                if (hasCoefficients) {
                    text += indexer.compressed != 0 ? textOf(record.packed) : textOf(record.raw);
                }
                cells[key].push_back(text);
            }
        }
        return cells;
    }

    // The records of the cells of a level.
    Cells actual(std::uint32_t level) const {
        Cells cells;
        for (const auto& [key, cell] : *indexer.levels->at(level)->cells) {
            for (const SplatsData& record : *cell) {
                std::string text(reinterpret_cast<const char*>(&record), dataRecordSize);
                if (indexer.bounding->hasShcoef && indexer.compressed != 0) {
                    text.append(reinterpret_cast<const char*>(record.packed), sizeof record.packed);
                } else if (indexer.bounding->hasShcoef) {
                    text.append(reinterpret_cast<const char*>(record.raw), sizeof record.raw);
                }
                cells[key].push_back(text);
            }
        }
        return cells;
    }

    reference::Ranges scene;
};

constexpr std::uint64_t single = 1'000'000; // the most splats of one cell
constexpr std::uint64_t grid = 1'000'001;

TEST_F(BuildTest, UpToAMillionSplatsShareCellZeroWhereverTheyAre) {
    Random random(70);
    const std::vector<std::vector<float>> blocks = {decodedScene(random, 100, true, 500.0f)};
    build(blocks, true, single);
    ASSERT_EQ(indexer.levels->size(), 1u);
    EXPECT_EQ(indexer.levels->at(0)->splatCount, 100u);
    EXPECT_EQ(actual(0), expected(blocks, true, true));
}

TEST_F(BuildTest, AboveAMillionTheGridDecides) {
    Random random(71);
    for (const bool hasCoefficients : {false, true}) {
        SCOPED_TRACE(hasCoefficients);
        *indexer.levels = LevelMap();
        indexer.chunks->clear();
        // Also to the left of and below the origin, where indices are negative.
        const std::vector<std::vector<float>> blocks = {decodedScene(random, 700, hasCoefficients, 60.0f),
                                                        decodedScene(random, 1, hasCoefficients, 60.0f),
                                                        decodedScene(random, 333, hasCoefficients, 60.0f)};
        build(blocks, hasCoefficients, grid);
        const Cells cells = expected(blocks, hasCoefficients, false);
        EXPECT_GT(cells.size(), 20u);
        EXPECT_EQ(actual(0), cells);
        EXPECT_EQ(indexer.levels->at(0)->splatCount, 1034u);
    }
}

TEST_F(BuildTest, RawCoefficientsAreKeptWhenNothingIsPacked) {
    Random random(72);
    const std::vector<std::vector<float>> blocks = {decodedScene(random, 50, true, 30.0f)};
    indexer.compressed = 0;
    build(blocks, true, grid);
    EXPECT_EQ(actual(0), expected(blocks, true, false));
}

// Far more cells than any cache of recent ones holds, in random order.
TEST_F(BuildTest, ManyScatteredCellsKeepTheirSplatsApart) {
    Random random(73);
    chunkGrid.cellSizeX = chunkGrid.cellSizeY = 1.0f;
    const std::vector<std::vector<float>> blocks = {decodedScene(random, 20'000, false, 150.0f),
                                                    decodedScene(random, 20'000, false, 150.0f)};
    build(blocks, false, grid);
    const Cells cells = expected(blocks, false, false);
    EXPECT_GT(cells.size(), 20'000u);
    EXPECT_TRUE(actual(0) == cells); // not printed
}

TEST_F(BuildTest, ColumnsBeyondSixteenBitsRunIntoTheRows) {
    chunkGrid = {.cellSizeX = 1.0f, .cellSizeY = 1.0f};
    std::vector<float> block(3 * layoutWithoutCoefficients.floats, 0.5f);
    block[0] = 65'536.5f;                           // column 65,536, row 0
    block[layoutWithoutCoefficients.floats] = 0.5f; // column 0, row 1
    block[layoutWithoutCoefficients.floats + 1] = 1.5f;
    block[2 * layoutWithoutCoefficients.floats] = 65'537.5f; // column 65,537, row 1
    block[2 * layoutWithoutCoefficients.floats + 1] = 1.5f;
    build({block}, false, grid);
    const Cells cells = actual(0);
    ASSERT_EQ(cells.size(), 2u);
    EXPECT_EQ(cells.at(0x10000).size(), 2u); // the first two share a key
    EXPECT_EQ(cells.at(0x10001).size(), 1u);
}

TEST_F(BuildTest, EachLevelHasItsOwnCells) {
    Random random(74);
    const std::vector<std::vector<float>> blocks = {
        decodedScene(random, 40, true, 40.0f), decodedScene(random, 30, true, 40.0f),
        decodedScene(random, 20, true, 40.0f), decodedScene(random, 10, true, 40.0f)};
    build(blocks, true, grid, {0, 3, 0, 4'000'000'000});
    ASSERT_EQ(indexer.levels->size(), 3u);
    EXPECT_EQ(indexer.levels->at(0)->splatCount, 60u);
    EXPECT_EQ(indexer.levels->at(3)->splatCount, 30u);
    EXPECT_EQ(indexer.levels->at(4'000'000'000)->splatCount, 10u);
    EXPECT_EQ(actual(0), expected({blocks[0], blocks[2]}, true, false)); // in the order of the list
    EXPECT_EQ(actual(3), expected({blocks[1]}, true, false));
    EXPECT_EQ(actual(4'000'000'000), expected({blocks[3]}, true, false));
}

TEST_F(BuildTest, AnEmptyListLeavesNoLevel) {
    build({}, true, 5);
    EXPECT_TRUE(indexer.levels->empty());
    indexer.bounding.reset(); // must not be used
    indexer.buildIndex();
    EXPECT_TRUE(indexer.levels->empty());
}

// Records of more blocks are added to the cells of an existing level, old and new.
TEST_F(BuildTest, ALevelThatIsThereIsAddedTo) {
    Random random(83);
    for (const std::uint64_t splatCount : {single, grid}) {
        *indexer.levels = LevelMap();
        const std::vector<std::vector<float>> blocks = {decodedScene(random, 60, false, 20.0f),
                                                        decodedScene(random, 9000, false, 40.0f),
                                                        decodedScene(random, 7, false, 40.0f)};
        scene = rangesOf(blocks[0], false);
        for (const std::vector<float>& block : {blocks[1], blocks[2]}) {
            for (std::size_t at = 0; at < block.size(); at += recordLayout(false).floats) {
                scene.widen(block.data() + at, false);
            }
        }
        indexer.bounding = boundingOf(scene, false);
        indexer.splatCount = splatCount;
        *indexer.chunks = {blockOf(blocks[0], false), blockOf(blocks[2], false, 5)};
        indexer.buildIndex();
        const std::shared_ptr<LODData> level = indexer.levels->at(0);
        *indexer.chunks = {blockOf(blocks[1], false), blockOf(blocks[0], false, 1)};
        indexer.buildIndex();
        EXPECT_EQ(*indexer.chunks, BlockList(2));
        ASSERT_EQ(indexer.levels->size(), 3u);
        EXPECT_EQ(indexer.levels->at(0), level);
        EXPECT_EQ(level->splatCount, 9060u);
        EXPECT_TRUE(actual(0) == expected({blocks[0], blocks[1]}, false, splatCount == single));
        EXPECT_TRUE(actual(1) == expected({blocks[0]}, false, splatCount == single));
        EXPECT_TRUE(actual(5) == expected({blocks[2]}, false, splatCount == single));
    }
}

TEST_F(BuildTest, ABlockWithoutSplatsStillMakesItsLevel) {
    for (const std::uint64_t splatCount : {single, grid}) {
        *indexer.levels = LevelMap();
        indexer.chunks->clear();
        build({{}}, true, splatCount, {2});
        ASSERT_EQ(indexer.levels->count(2), 1u);
        EXPECT_EQ(indexer.levels->at(2)->splatCount, 0u);
        EXPECT_TRUE(indexer.levels->at(2)->cells->empty());
    }
}

TEST_F(BuildTest, EveryBlockIsFreedAndTheListKeepsItsLength) {
    Random random(75);
    build({decodedScene(random, 5, false, 9.0f), decodedScene(random, 5, false, 9.0f)}, false, single);
    EXPECT_EQ(*indexer.chunks, BlockList(2));
    *indexer.levels = LevelMap();
    const auto without = std::make_shared<ChunkData>(); // an entry without data stays
    *indexer.chunks = {without, blockOf(decodedScene(random, 5, false, 9.0f), false)};
    const std::weak_ptr<ChunkData> freed = indexer.chunks->back();
    indexer.buildIndex();
    EXPECT_TRUE(freed.expired());
    EXPECT_EQ(*indexer.chunks, (BlockList{without, nullptr}));
}

#if defined(__linux__)

// Memory mapped at the addresses of a block as soon as it is freed, as another thread might do.
struct Successor {
    static constexpr unsigned char mark = 0x5C;
    void* address;
    std::uint64_t bytes;
    void* mapping = MAP_FAILED;

    void appear() {
        mapping = mmap(address, bytes, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        ASSERT_EQ(mapping, address);
        std::memset(mapping, mark, bytes);
    }
    bool isIntact() const {
        const auto* const first = static_cast<const unsigned char*>(mapping);
        return std::all_of(first, first + bytes, [](unsigned char byte) { return byte == mark; });
    }
};

// The first block's splats touch a page of each of their cells at once and then fill these pages. So the
// block's own donated pages are left over at its end.
TEST_F(BuildTest, NoPageOfAFreedBlockStaysDonated) {
    if (!largePagesMove()) {
        GTEST_SKIP() << "pages do not move here";
    }
    Random random(78);
    constexpr std::size_t floats = layoutWithCoefficients.floats;
    std::vector<std::vector<float>> blocks = {decodedScene(random, 120'000, true, 4.0f),
                                              decodedScene(random, 60'000, true, 4.0f)};
    for (std::size_t i = 0; i < 120'000; ++i) {
        blocks[0][i * floats] = -35.0f + 10.0f * static_cast<float>(i % 8);
        blocks[0][i * floats + 1] = -30.0f;
    }
    for (std::size_t i = 0; i < 60'000; ++i) {
        blocks[1][i * floats + 1] = 40.0f;
    }
    const std::shared_ptr<ChunkData> first = blockOf(blocks[0], true);
    Successor successor{first->data, blocks[0].size() * sizeof(float)};
    *indexer.chunks = {std::shared_ptr<ChunkData>(first.get(), [&](ChunkData*) { successor.appear(); }),
                       blockOf(blocks[1], true)};
    scene = rangesOf(blocks[0], true);
    for (std::size_t at = 0; at < blocks[1].size(); at += floats) {
        scene.widen(blocks[1].data() + at, true);
    }
    indexer.bounding = boundingOf(scene, true);
    indexer.splatCount = grid;
    indexer.buildIndex();
    EXPECT_TRUE(actual(0) == expected(blocks, true, false));
    EXPECT_TRUE(successor.isIntact());
    munmap(successor.mapping, successor.bytes);
}

#endif

// More cells than the budget has huge pages.
TEST_F(BuildTest, ManyCellsShareLargeAndOrdinaryPages) {
    Random random(81);
    for (const float cellSize : {1.0f, 15.0f}) {
        chunkGrid.cellSizeX = chunkGrid.cellSizeY = cellSize;
        for (const bool hasCoefficients : {false, true}) {
            *indexer.levels = LevelMap();
            indexer.chunks->clear();
            const std::vector<std::vector<float>> blocks = {
                decodedScene(random, 250'000, hasCoefficients, 45.0f),
                decodedScene(random, 20'000, hasCoefficients, 45.0f),
                decodedScene(random, 50'000, hasCoefficients, 45.0f)};
            build(blocks, hasCoefficients, grid);
            EXPECT_TRUE(actual(0) == expected(blocks, hasCoefficients, false));
        }
    }
}

// One cell, written from start to end. It takes the pages of the block as they become free.
TEST_F(BuildTest, PagesMoveWhileOneCellGrows) {
    Random random(79);
    for (const bool hasCoefficients : {false, true}) {
        *indexer.levels = LevelMap();
        indexer.chunks->clear();
        const std::vector<std::vector<float>> blocks = {decodedScene(random, 40'000, hasCoefficients, 45.0f),
                                                        decodedScene(random, 1000, hasCoefficients, 45.0f),
                                                        decodedScene(random, 31'000, hasCoefficients, 45.0f)};
        build(blocks, hasCoefficients, single, {0, 0, 0});
        EXPECT_TRUE(actual(0) == expected(blocks, hasCoefficients, true));
    }
}

// True if any of these pages is mapped. Only used where pages can be moved.
bool isMapped([[maybe_unused]] std::byte* first, [[maybe_unused]] std::uint64_t bytes) {
#if defined(__linux__)
    unsigned char present = 0;
    for (std::uint64_t at = 0; at < bytes; at += largePage) {
        if (mincore(first + at, 1, &present) == 0) {
            return true;
        }
    }
#endif
    return false;
}

constexpr unsigned char mark = 0xAA;
constexpr std::uint64_t roomSize = 6 * largePage;

// True if some record's unused bytes, which nothing sets, still have the mark of donated memory.
bool hasMarkedRecord(const LODData& level) {
    for (const auto& [key, cell] : *level.cells) {
        for (const SplatsData& record : *cell) {
            const auto* const unset = reinterpret_cast<const unsigned char*>(record.raw);
            if (std::all_of(unset, unset + sizeof record.raw,
                            [](unsigned char byte) { return byte == mark; })) {
                return true;
            }
        }
    }
    return false;
}

// Memory touched while the block was decoded is used for records, and the rest of it is freed.
TEST_F(BuildTest, GivenMemoryHoldsRecordsAndIsFreed) {
    Random random(81);
    chunkGrid.cellSizeX = chunkGrid.cellSizeY = 60.0f; // of a few pages each
    for (const bool hasCoefficients : {false, true}) {
        for (const std::uint64_t splatCount : {single, grid}) {
            *indexer.levels = LevelMap();
            indexer.chunks->clear();
            const std::vector<std::vector<float>> blocks = {
                decodedScene(random, 60'000, hasCoefficients, 45.0f),
                decodedScene(random, 15'000, hasCoefficients, 45.0f)};
            std::vector<std::byte*> rooms;
            for (const std::vector<float>& block : blocks) {
                indexer.chunks->push_back(blockOf(block, hasCoefficients));
                indexer.chunks->back()->room = makeLargeArray<std::byte>(roomSize);
                rooms.push_back(indexer.chunks->back()->room.get());
                std::memset(rooms.back(), mark, roomSize);
            }
            scene = rangesOf(blocks[0], hasCoefficients);
            for (std::size_t at = 0; at < blocks[1].size(); at += recordLayout(hasCoefficients).floats) {
                scene.widen(blocks[1].data() + at, hasCoefficients);
            }
            indexer.bounding = boundingOf(scene, hasCoefficients);
            indexer.splatCount = splatCount;
            indexer.buildIndex();
            EXPECT_TRUE(!largePagesMove() || std::none_of(rooms.begin(), rooms.end(), [](std::byte* room) {
                return isMapped(room, roomSize);
            }));
            EXPECT_TRUE(actual(0) == expected(blocks, hasCoefficients, splatCount == single));
            EXPECT_EQ(hasMarkedRecord(*indexer.levels->at(0)), largePagesMove());
        }
    }
}

#if defined(__linux__)

// True if the address space of this process still has this many contiguous bytes.
bool hasAddresses(std::uint64_t bytes) {
    void* const mapping = mmap(nullptr, bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return mapping != MAP_FAILED && munmap(mapping, bytes) == 0;
}

struct BuildDeathTest : BuildTest {
    // Builds with so little address space that the donated memory must be unmapped before the records fit.
    [[noreturn]] void buildInAFullAddressSpace() {
        constexpr std::uint64_t splats = 100'000; // 28.8 MB of records
        constexpr std::uint64_t given = 20 * largePage;
        Random random(82);
        const std::vector<std::vector<float>> blocks = {decodedScene(random, splats, false, 45.0f)};
        const auto block = blockOf(blocks[0], false);
        *indexer.chunks = {block};
        scene = rangesOf(blocks[0], false);
        indexer.bounding = boundingOf(scene, false);
        indexer.splatCount = single;
        block->room = makeLargeArray<std::byte>(given);
        rlimit limit{};
        getrlimit(RLIMIT_AS, &limit);
        std::uint64_t used = 0;
        std::ifstream("/proc/self/statm") >> used;
        limit.rlim_cur =
            used * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) + splats * sizeof(SplatsData) / 2;
        setrlimit(RLIMIT_AS, &limit);
        if (hasAddresses(splats * sizeof(SplatsData))) {
            std::_Exit(1);
        }
        indexer.buildIndex();
        std::_Exit(indexer.levels->at(0)->cells->at(0)->size() == splats ? 0 : 2);
    }
};

TEST_F(BuildDeathTest, GivenMemoryIsGivenBackWhereAddressesAreShort) {
#if defined(PLYCONVERT_ADDRESS_SPACE_IN_USE)
    GTEST_SKIP() << "the sanitizer's runtime leaves no address space to limit";
#endif
    EXPECT_PROCESS_EXIT(buildInAFullAddressSpace(), 0, "");
}

#endif

std::shared_ptr<BlockCells> foundBefore(const std::vector<float>& block, const ChunkGrid& itsGrid) {
    auto cells = std::make_shared<BlockCells>();
    cells->grid = itsGrid;
    cells->keys = makeLargeArray<std::uint32_t>(block.size() / layoutWithoutCoefficients.floats);
    for (std::size_t at = 0; at < block.size(); at += layoutWithoutCoefficients.floats) {
        cells->keys[at / layoutWithoutCoefficients.floats] = cellKey(block[at], block[at + 1], itsGrid);
        cells->counter.add(cells->keys[at / layoutWithoutCoefficients.floats], 1);
    }
    return cells;
}

TEST_F(BuildTest, CellsFoundBeforeAreUsedForTheirOwnGridAlone) {
    Random random(80);
    const std::vector<float> records = decodedScene(random, 500, false, 40.0f);
    ChunkGrid other = chunkGrid;
    other.cellSizeX = 3.0f;
    for (const ChunkGrid& itsGrid : {chunkGrid, other}) {
        *indexer.levels = LevelMap();
        const auto block = blockOf(records, false);
        block->cells = foundBefore(records, itsGrid);
        *indexer.chunks = {block};
        scene = rangesOf(records, false);
        indexer.bounding = boundingOf(scene, false);
        indexer.splatCount = grid;
        indexer.buildIndex();
        EXPECT_EQ(actual(0), expected({records}, false, false));
    }
}

TEST_F(BuildTest, EveryMapHasItsSettings) {
    Random random(76);
    build({decodedScene(random, 5, false, 9.0f)}, false, grid);
    EXPECT_EQ(indexer.levels->max_load_factor(), 1.0f);
    EXPECT_EQ(indexer.levels->at(0)->cells->max_load_factor(), 1.0f);
    EXPECT_GE(Indexer({}, "").levels->bucket_count(), 8u);
    EXPECT_GE(LODData().cells->bucket_count(), 8u);
}

// The types are plain ones that a caller can name.
static_assert(std::is_same_v<
              decltype(LODData::cells),
              std::shared_ptr<std::unordered_map<std::uint32_t, std::shared_ptr<std::vector<SplatsData>>>>>);
static_assert(std::is_same_v<decltype(Indexer::levels),
                             std::shared_ptr<std::unordered_map<std::uint32_t, std::shared_ptr<LODData>>>>);

TEST(SplatsData, LeavesItsMemoryAloneWhenItIsMade) {
    static_assert(std::is_trivially_copyable_v<SplatsData> && std::is_trivially_destructible_v<SplatsData>);
    alignas(SplatsData) unsigned char memory[2 * sizeof(SplatsData)];
    std::memset(memory, 0xA5, sizeof memory);
    std::uninitialized_value_construct_n(reinterpret_cast<SplatsData*>(memory), 2); // as a vector does
    EXPECT_TRUE(std::all_of(std::begin(memory), std::end(memory), [](unsigned char b) { return b == 0xA5; }));
}

TEST_F(BuildTest, AwkwardPositionsFallIntoDefinedCells) {
    Random random(77);
    std::vector<float> block = decodedScene(random, 3000, false, 60.0f);
    for (std::size_t at = 0; at < block.size(); at += layoutWithoutCoefficients.floats) {
        block[at] = support::mixedFloat(random, -60.0f, 60.0f);
        block[at + 1] = support::mixedFloat(random, -60.0f, 60.0f);
    }
    build({block}, false, grid);
    EXPECT_TRUE(actual(0) == expected({block}, false, false));
}

TEST(LODData, DeclaresItsFieldsInOrder) {
    const LODData lod;
    static_assert(std::is_same_v<decltype(LODData::splatCount), std::uint32_t>);
    support::expectDeclaredInOrder({{"splatCount", lod.splatCount}, {"cells", lod.cells}});
    EXPECT_EQ(lod.splatCount, 0u);
    EXPECT_TRUE(lod.cells->empty());
}

TEST(Indexer, DeclaresItsFieldsInOrder) {
    const Indexer indexer({}, "");
    support::expectDeclaredInOrder({{"headers", indexer.headers},
                                    {"compressed", indexer.compressed},
                                    {"threadCount", indexer.threadCount},
                                    {"params", indexer.params},
                                    {"bounding", indexer.bounding},
                                    {"chunks", indexer.chunks},
                                    {"outputFolder", indexer.outputFolder},
                                    {"totalLevel", indexer.totalLevel},
                                    {"countLabel", indexer.countLabel},
                                    {"levels", indexer.levels},
                                    {"indexBuffer", indexer.indexBuffer},
                                    {"indexEntrySize", indexer.indexEntrySize},
                                    {"indexBufferSize", indexer.indexBufferSize},
                                    {"totalSplats", indexer.totalSplats},
                                    {"splatCount", indexer.splatCount}});
    static_assert(std::is_same_v<decltype(Indexer::compressed), std::uint32_t>);
    static_assert(std::is_same_v<decltype(Indexer::threadCount), std::uint32_t>);
    static_assert(std::is_same_v<decltype(Indexer::totalLevel), std::int32_t>);
    static_assert(std::is_same_v<decltype(Indexer::indexEntrySize), std::uint32_t>);
    static_assert(std::is_same_v<decltype(Indexer::indexBufferSize), std::uint64_t>);
    static_assert(std::is_same_v<decltype(Indexer::totalSplats), std::uint64_t>);
    static_assert(std::is_same_v<decltype(Indexer::splatCount), std::uint64_t>);
}

TEST(Indexer, StartsWithOneEmptyPackedLevel) {
    const Indexer indexer(std::vector<SplatHeader>(2), "folder", 0, 0);
    EXPECT_EQ(indexer.headers.size(), 2u);
    EXPECT_EQ(indexer.compressed, 1u);
    EXPECT_EQ(indexer.threadCount, std::thread::hardware_concurrency());
    EXPECT_EQ(indexer.outputFolder, "folder");
    EXPECT_EQ(indexer.totalLevel, 1);
    EXPECT_EQ(indexer.countLabel, "");
    ASSERT_NE(indexer.levels, nullptr);
    EXPECT_TRUE(indexer.levels->empty());
    EXPECT_EQ(indexer.params, nullptr);
    EXPECT_EQ(indexer.bounding, nullptr);
    EXPECT_EQ(indexer.chunks, nullptr);
    EXPECT_EQ(indexer.indexBuffer, nullptr);
    EXPECT_EQ(indexer.indexEntrySize, 0u);
    EXPECT_EQ(indexer.indexBufferSize, 0u);
    EXPECT_EQ(indexer.totalSplats, 0u);
    EXPECT_EQ(indexer.splatCount, 0u);
}

} // namespace

} // namespace Tavrin::GaussionSplat
