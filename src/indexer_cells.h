// Counts, makes and fills the cells of one level while the index is built.
#pragma once

#include "src/cells.h"
#include "src/indexer_memory.h"
#include "src/indexer_records.h"

#include <cstdint>
#include <vector>

namespace Tavrin::GaussionSplat {

// The cells of one level: first counted, then made, then filled in the order in which splats are placed.
class CellTable {
public:
    CellCounter counter;
    RecordMemory memory;

    // Extend each counted cell's vector in level by exactly its count; the new records are not set. Then
    // prepare the memory. Throws std::bad_alloc.
    void reserve(LODData& level, std::uint64_t spareMemory);

    // The place of the next splat of the cell with this key. Call at most as often as splats were counted.
    SplatsData* place(std::uint32_t key) {
        CellRecords& cell = cells_[counter.numberOf(key)];
        SplatsData* const record = cell.next++;
        if (record >= cell.backedEnd) {
            memory.back(record, cell);
        }
        return record;
    }

private:
    // Appends to the cells that exist already.
    void makeCells(LODData& level);

    std::vector<CellRecords> cells_; // by number
};

} // namespace Tavrin::GaussionSplat
