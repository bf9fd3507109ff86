// The memory of the records: what of it is on large pages, and where its pages come from.
#include "src/indexer_cells.h"
#include "src/indexer_records.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

constexpr std::uint64_t recordBytes = sizeof(SplatsData);

// Cells of so many splats each.
std::vector<CellCount> cellsOf(const std::vector<std::uint64_t>& splats) {
    std::vector<CellCount> cells;
    for (const std::uint64_t count : splats) {
        cells.push_back({.key = static_cast<std::uint32_t>(cells.size()), .splats = count});
    }
    return cells;
}

TEST(BytesOnLargePages, AreAllWhileACellsPageEachIsThere) {
    const std::vector<CellCount> cells = cellsOf(std::vector<std::uint64_t>(238, 42'017));
    const std::uint64_t all = 238 * 42'017 * recordBytes;
    EXPECT_EQ(bytesOnLargePages(cells, 238 * largePage, 0), all);
    EXPECT_EQ(bytesOnLargePages(cells, 237 * largePage, 0), all / 238 * 237);
    EXPECT_EQ(bytesOnLargePages(cells, 100 * largePage, 0), all / 238 * 100);
    EXPECT_EQ(bytesOnLargePages(cells, 0, 0), 0u);
}

TEST(BytesOnLargePages, OfSmallCellsAreWhatMayBeThereAtOnce) {
    const std::vector<CellCount> cells = cellsOf(std::vector<std::uint64_t>(10'000, 400)); // 115,200 bytes
    EXPECT_EQ(bytesOnLargePages(cells, 115'200 * 700, 0), 115'200u * 700);
    EXPECT_EQ(bytesOnLargePages(cells, 115'200 * 700 + 100, 0), 115'200u * 700);
    EXPECT_EQ(bytesOnLargePages(cells, 0, 115'200 * 300), 115'200u * 300);
    EXPECT_EQ(bytesOnLargePages(cells, 115'200 * 700, 115'200 * 300), 115'200u * 1000);
}

// Cells of several pages are ahead by one page to their ends: given memory stands in for its share of them
// alone.
TEST(BytesOnLargePages, CountGivenMemoryForItsShare) {
    const std::uint64_t pages = 9;
    const std::uint64_t splats = pages * largePage / recordBytes;
    const std::vector<CellCount> cells = cellsOf(std::vector<std::uint64_t>(100, splats));
    const std::uint64_t all = 100 * splats * recordBytes;
    EXPECT_EQ(bytesOnLargePages(cells, 50 * largePage + 4096, all / 2), all);
    EXPECT_LT(bytesOnLargePages(cells, 49 * largePage, all / 2), all);
    EXPECT_EQ(bytesOnLargePages(cells, 0, all), all);
}

// A large cell behind small ones makes none of them smaller.
TEST(BytesOnLargePages, TakeTheCellsInTheirOrder) {
    std::vector<std::uint64_t> splats(402, 7281);
    splats.push_back(1'073'038);
    EXPECT_EQ(bytesOnLargePages(cellsOf(splats), 7281 * recordBytes * 300, 0), 7281 * recordBytes * 300);
    std::reverse(splats.begin(), splats.end());
    EXPECT_EQ(bytesOnLargePages(cellsOf(splats), 7281 * recordBytes * 300 + largePage, 0),
              1'073'038 * recordBytes + 7281 * recordBytes * 300);
}

TEST(BytesOnLargePages, OfNoCellsAreNone) {
    EXPECT_EQ(bytesOnLargePages({}, 1000, 1000), 0u);
}

TEST(RecordArena, SettlesThePagesOfItsFirstPartAlone) {
    const std::uint64_t size = 4 * largePage;
    EXPECT_EQ(RecordArena(size, size).unsettled, 4u);
    EXPECT_EQ(RecordArena(size + 1, size + 1).unsettled, 5u);
    EXPECT_EQ(RecordArena(size, 2 * largePage + 5).unsettled, 2u);
    EXPECT_EQ(RecordArena(size, 0).unsettled, 0u);
    EXPECT_EQ(RecordArena(largePage - 1, largePage - 1).unsettled, 0u); // from the heap
    EXPECT_EQ(RecordArena(0, 0).unsettled, 0u);
}

SplatsData* recordAt(const RecordArena& arena, std::uint64_t index) {
    return reinterpret_cast<SplatsData*>(arena.block.get()) + index;
}

// 7281 whole records stand on a large page, and the next reaches onto the second.
TEST(RecordArena, TellsWhichRecordsHaveMemoryAfterARecordIsSettled) {
    RecordArena arena(3 * largePage, 3 * largePage);
    EXPECT_EQ(arena.settle(recordAt(arena, 0)), recordAt(arena, 7281));
    EXPECT_EQ(arena.unsettled, 2u);
    EXPECT_EQ(arena.settle(recordAt(arena, 100)), recordAt(arena, 7281));
    EXPECT_EQ(arena.unsettled, 2u);
    EXPECT_EQ(arena.settle(recordAt(arena, 7281)), recordAt(arena, 2 * largePage / recordBytes));
    EXPECT_EQ(arena.unsettled, 1u);
    const std::uint64_t last = arena.size / recordBytes - 1;
    EXPECT_EQ(arena.settle(recordAt(arena, last)), recordAt(arena, last + 1));
    EXPECT_EQ(arena.unsettled, 0u);
}

TEST(RecordArena, KeepsNoMoreOffersThanItNeedsAndNoneThatIsWithdrawn) {
    const LargeArray<std::byte> block = makeLargeArray<std::byte>(5 * largePage);
    RecordArena arena(3 * largePage, 2 * largePage);
    for (std::uint64_t page = 0; page < 5; ++page) {
        block[page * largePage] = std::byte{7};
        arena.offer(block.get() + page * largePage);
    }
    EXPECT_EQ(arena.spare.size(), largePagesMove() ? 2u : 0u);
    for (std::uint64_t page = 2; page < 5 && largePagesMove(); ++page) {
        EXPECT_EQ(block[page * largePage], std::byte{0}) << page; // given back
    }
    EXPECT_EQ(block[0], std::byte{7});
    arena.withdrawOffers();
    EXPECT_TRUE(arena.spare.empty());
    arena.settle(recordAt(arena, 0));
    EXPECT_EQ(block[0], std::byte{7}); // nothing was moved out of a block that is somebody else's again
}

TEST(RecordArena, PutsWhatIsOfferedUnderItsRecords) {
    const LargeArray<std::byte> block = makeLargeArray<std::byte>(largePage);
    std::fill_n(block.get(), largePage, std::byte{7});
    RecordArena arena(3 * largePage, 3 * largePage);
    arena.offer(block.get());
    arena.settle(recordAt(arena, 3));
    EXPECT_TRUE(arena.spare.empty());
    if (largePagesMove()) {
        EXPECT_EQ(arena.block[5], std::byte{7});
        EXPECT_EQ(block[5], std::byte{0});
    }
}

} // namespace

} // namespace Tavrin::GaussionSplat
