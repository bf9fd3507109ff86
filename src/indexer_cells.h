// Reserving and filling the cells of one level while the index is built.
#pragma once

#include "src/cells.h"
#include "src/indexer_records.h"
#include "src/large_pages.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace Tavrin::GaussionSplat {

// How many bytes of the records of these cells, from the first cell on, may be on large pages: whole cells,
// while these pages take at most spareMemory ahead of the records beyond what was given for them.
//
// A cell is ahead by at most the one page that it fills, and all of them by no more than what is not placed
// yet. While that shrinks, the given memory that is not used yet shrinks at the same rate, as long as the
// cells fill side by side.
std::uint64_t bytesOnLargePages(const std::vector<CellCount>& cells, std::uint64_t spareMemory,
                                std::uint64_t given);

// The cells of one level: first counted, then reserved exactly, then filled in the order that splats are
// placed.
class CellTable {
public:
    CellCounter counter;

    // Make a vector of exactly the counted size for each cell in level, all from one large block that is not
    // cleared. Throws AllocationError. While the splats are placed, side by side in all cells, the block and
    // the decoded blocks together take at most spareMemory more than the records; above some hundred thousand
    // cells, 4.4 kB a cell more than that.
    void reserve(LODData& level, std::uint64_t spareMemory);

    // The place of the next splat of the cell of key; at most as many as were counted.
    SplatsData* place(std::uint32_t key) {
        Filling& cell = filling[counter.numberOf(key)];
        SplatsData* const record = cell.next++;
        if (record >= cell.settledEnd) {
            cell.settledEnd = arena->settle(record);
        }
        return record;
    }

    // Give memory for the records, whole large pages that are there already; it may be empty. Call before
    // reserve.
    void give(LargeArray<std::byte> room) { rooms.push_back(std::move(room)); }

    // Offer memory that nobody reads any more, a large page of a block from allocateLarge, for records to
    // come.
    void offer(void* page) { arena->offer(page); }

    // Take back what is left of the offers: their block is about to be freed, and its addresses may be
    // somebody else's by the time a record needs a page.
    void withdrawOffers() { arena->withdrawOffers(); }

    // No splats are left to place: free what is left of the memory that was given.
    void close();

private:
    struct Filling {
        SplatsData* next;
        SplatsData* settledEnd; // the records before this one have memory
    };

    std::shared_ptr<RecordArena> arena;       // set by reserve
    std::vector<Filling> filling;             // by number of cell
    std::vector<LargeArray<std::byte>> rooms; // what was given
};

} // namespace Tavrin::GaussionSplat
