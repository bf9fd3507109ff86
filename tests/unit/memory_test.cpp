// The memory of the records: which of it is on huge pages, and where the pages come from.
#include "src/indexer_memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

constexpr std::uint64_t recordBytes = sizeof(SplatsData);

// Records that begin `offset` bytes after a multiple of largePage, at an address that is not mapped.
CellRecords cellAt(std::uint64_t offset, std::uint64_t splats) {
    auto* const first = reinterpret_cast<SplatsData*>((std::uintptr_t{1} << 40) + offset);
    return {.next = first, .backedEnd = first, .end = first + splats};
}

// 9 records of 288 bytes are 2592, so 7282 of them reach beyond one page.
TEST(LargePagesIn, AreTheWholeOnes) {
    EXPECT_EQ(largePagesIn(cellAt(0, 0)), 0u);
    EXPECT_EQ(largePagesIn(cellAt(0, 7281)), 0u);
    EXPECT_EQ(largePagesIn(cellAt(0, 7282)), 1u);
    EXPECT_EQ(largePagesIn(cellAt(16, 7282)), 0u);
    EXPECT_EQ(largePagesIn(cellAt(16, 2 * 7282)), 1u);
    EXPECT_EQ(largePagesIn(cellAt(largePage - 16, 7282)), 1u);
}

TEST(CellsOnLargePages, AreAllWhileAPageEachMayBeWasted) {
    const std::vector<CellRecords> cells(238, cellAt(0, 42'017));
    EXPECT_EQ(cellsOnLargePages(cells, 238 * largePage, 0), 238u);
    EXPECT_EQ(cellsOnLargePages(cells, 237 * largePage, 0), 237u);
    EXPECT_EQ(cellsOnLargePages(cells, 100 * largePage, 0), 100u);
    EXPECT_EQ(cellsOnLargePages(cells, 0, 0), 0u);
    EXPECT_EQ(cellsOnLargePages({}, 1000, 1000), 0u);
}

TEST(CellsOnLargePages, WithoutAWholePageWasteNone) {
    const std::vector<CellRecords> cells(10'000, cellAt(0, 400));
    EXPECT_EQ(cellsOnLargePages(cells, 0, 0), 10'000u);
}

TEST(CellsOnLargePages, CountSparePagesForTheirShare) {
    const std::uint64_t pages = 9;
    const std::vector<CellRecords> cells(100, cellAt(0, (pages * largePage + recordBytes) / recordBytes));
    ASSERT_EQ(largePagesIn(cells[0]), pages);
    EXPECT_EQ(cellsOnLargePages(cells, 50 * largePage + 4096, 50 * pages), 100u);
    EXPECT_LT(cellsOnLargePages(cells, 49 * largePage, 50 * pages), 100u);
    EXPECT_EQ(cellsOnLargePages(cells, 0, 100 * pages), 100u);
}

// The memory of one level with one cell.
struct RecordMemoryTest : testing::Test {
    SplatCell records = SplatCell(4 * largePage / recordBytes); // three whole pages
    std::vector<CellRecords> cells = {cellOf(records)};
    RecordMemory memory;

    static CellRecords cellOf(SplatCell& cell) {
        return {.next = cell.data(), .backedEnd = cell.data(), .end = cell.data() + cell.size()};
    }

    std::byte* firstPage() {
        const auto at = reinterpret_cast<std::uintptr_t>(records.data());
        return reinterpret_cast<std::byte*>((at + largePage - 1) / largePage * largePage);
    }
};

TEST_F(RecordMemoryTest, TellsWhichRecordsHaveMemory) {
    const std::uint64_t pages = largePagesIn(cells[0]);
    ASSERT_GE(pages, 2u);
    memory.prepare(cells, 100 * largePage);
    EXPECT_EQ(memory.bareLargePages(), pages);
    const auto at = [&](std::uint64_t page) { // the record that has the first byte of a page
        const auto before =
            static_cast<std::uint64_t>(firstPage() - reinterpret_cast<std::byte*>(records.data()));
        return records.data() + (before + page * largePage) / recordBytes;
    };
    EXPECT_EQ(cells[0].backedEnd, at(0));
    for (std::uint64_t page = 0; page < pages; ++page) {
        memory.back(cells[0].backedEnd, cells[0]);
        EXPECT_EQ(cells[0].backedEnd, page + 1 < pages ? at(page + 1) : cells[0].end) << page;
        EXPECT_EQ(memory.bareLargePages(), pages - page - 1);
    }
}

TEST_F(RecordMemoryTest, LeavesCellsBeyondTheBudgetAlone) {
    memory.prepare(cells, 0);
    EXPECT_EQ(memory.bareLargePages(), 0u);
    EXPECT_EQ(cells[0].backedEnd, cells[0].end);
}

TEST_F(RecordMemoryTest, KeepsNoMoreDonatedPagesThanItNeedsAndNoneThatIsWithdrawn) {
    const LargeArray<std::byte> block = makeLargeArray<std::byte>(5 * largePage);
    memory.prepare(cells, 100 * largePage);
    const std::uint64_t pages = memory.bareLargePages();
    for (std::uint64_t page = 0; page < 5; ++page) {
        block[page * largePage] = std::byte{7};
        memory.donate(block.get() + page * largePage);
    }
    EXPECT_EQ(memory.sparePages(), largePagesMove() ? pages : 0u);
    for (std::uint64_t page = pages; page < 5 && largePagesMove(); ++page) {
        EXPECT_EQ(block[page * largePage], std::byte{0}) << page; // given back
    }
    EXPECT_EQ(block[0], std::byte{7});
    memory.withdrawDonations();
    EXPECT_EQ(memory.sparePages(), 0u);
    memory.back(cells[0].backedEnd, cells[0]);
    EXPECT_EQ(block[0], std::byte{7}); // nothing was moved out of a block that is in use again
}

TEST_F(RecordMemoryTest, PutsASparePageUnderRecordsAndNothingElse) {
    const LargeArray<std::byte> block = makeLargeArray<std::byte>(largePage);
    std::fill_n(block.get(), largePage, std::byte{7});
    memory.prepare(cells, 100 * largePage);
    firstPage()[-1] = std::byte{1};
    firstPage()[largePage] = std::byte{2};
    memory.donate(block.get());
    memory.back(cells[0].backedEnd, cells[0]);
    EXPECT_EQ(memory.sparePages(), 0u);
    EXPECT_EQ(firstPage()[-1], std::byte{1});
    EXPECT_EQ(firstPage()[largePage], std::byte{2});
    if (largePagesMove()) {
        EXPECT_EQ(firstPage()[5], std::byte{7});
        EXPECT_EQ(block[5], std::byte{0});
    }
}

TEST_F(RecordMemoryTest, KeepsRoomsWhenDonationsAreWithdrawnAndDropsWhatIsTooMuch) {
    const LargeArray<std::byte> block = makeLargeArray<std::byte>(largePage);
    memory.give(makeLargeArray<std::byte>(largePage));
    memory.give(nullptr);
    memory.prepare(cells, 100 * largePage);
    memory.donate(block.get());
    EXPECT_EQ(memory.sparePages(), largePagesMove() ? 2u : 1u);
    memory.withdrawDonations();
    EXPECT_EQ(memory.sparePages(), 1u);
    memory.freeRooms();
    EXPECT_EQ(memory.sparePages(), 0u);

    RecordMemory other;
    other.give(makeLargeArray<std::byte>(50 * largePage));
    std::vector<CellRecords> sameCells = {cellOf(records)};
    other.prepare(sameCells, 100 * largePage);
    EXPECT_EQ(other.sparePages(), other.bareLargePages());
}

// The heads of cells are filled while all rooms still exist, so rooms are given up for them. The bookkeeping
// of the cells takes a sixteenth page.
TEST_F(RecordMemoryTest, KeepsRoomsAndHeadsWithinTheBudget) {
    std::vector<CellRecords> many(20, cellAt(16, 3 * largePage / recordBytes + 1)); // heads of almost a page
    memory.give(makeLargeArray<std::byte>(40 * largePage));
    memory.prepare(many, 5 * largePage);
    EXPECT_EQ(memory.bareLargePages(), 40u);
    EXPECT_EQ(memory.sparePages(), 40u - 16u);
}

} // namespace

} // namespace Tavrin::GaussionSplat
