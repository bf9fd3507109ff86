// Provides the memory of the records of one level.
//
// The system clears memory before it hands it out, which costs more than filling the records. So spare pages
// replace the huge pages inside the cells' vectors just before their first use. Spare pages are pages of
// decoded blocks that nobody reads any more, and pages that the workers pre-faulted for this purpose.
#pragma once

#include "src/indexer_records.h"
#include "src/large_pages.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tavrin::GaussionSplat {

// The records of a cell that are still to be placed.
struct CellRecords {
    SplatsData* next;
    SplatsData* backedEnd; // records before it need no call of RecordMemory::back
    SplatsData* end;
};

// Whole huge pages between next and end.
std::uint64_t largePagesIn(const CellRecords& cell);

// How many of these cells, from the first on, may use huge pages. A cell that is being filled wastes up to
// one page. Waste not covered by spare pages must stay below spareMemory. sparePages is the number of spare
// pages at the start. Their share of the waste shrinks along with it, as long as the cells fill side by side.
std::size_t cellsOnLargePages(const std::vector<CellRecords>& cells, std::uint64_t spareMemory,
                              std::uint64_t sparePages);

class RecordMemory {
public:
    // Hand over pre-faulted memory for good: whole huge pages, possibly none. Call before prepare.
    void give(LargeArray<std::byte> room);

    // Free everything that was given.
    void freeRooms();

    // Decide which of the cells use huge pages, and set backedEnd of every cell. No record of them may be
    // placed yet. While splats are placed side by side in all cells, records and blocks together take at most
    // spareMemory more than the records alone. Above some hundred thousand cells they take 4.4 kB a cell
    // more.
    void prepare(std::vector<CellRecords>& cells, std::uint64_t spareMemory);

    // Donate a huge page of a decoded block that nobody reads any more. A page that no record will need goes
    // back to the system at once.
    void donate(void* page);

    // Take back the donated pages that are left. Their block is about to be freed, and its addresses may
    // belong to another allocation by the time a record needs a page.
    void withdrawDonations();

    // Call before the first write to a record at or after backedEnd.
    void back(SplatsData* record, CellRecords& cell);

    std::uint64_t sparePages() const { return spare_.size(); }
    std::uint64_t bareLargePages() const { return barePages_; }

private:
    void dropSpare();
    void dropSurplus(); // drop spare pages beyond the number of bare ones

    std::vector<LargeArray<std::byte>> rooms_; // what was given
    std::vector<void*> spare_;                 // pages of the rooms first, then donated ones
    std::size_t roomPages_ = 0;                // this many of the spare pages come from rooms
    std::uint64_t barePages_ = 0;              // huge pages under records that are not backed yet
};

} // namespace Tavrin::GaussionSplat
