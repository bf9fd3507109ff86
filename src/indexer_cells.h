// Counting, making and filling the cells of one level while the index is built.
#pragma once

#include "src/cells.h"
#include "src/indexer_memory.h"
#include "src/indexer_records.h"

#include <cstdint>
#include <vector>

namespace Tavrin::GaussionSplat {

// The cells of one level: first counted, then made, then filled in the order that splats are placed.
class CellTable {
public:
    CellCounter counter;
    RecordMemory memory;

    // Make each counted cell's vector in level longer by exactly its count; the new records are not set. Then
    // prepare the memory. Throws std::bad_alloc.
    void reserve(LODData& level, std::uint64_t spareMemory);

    // The place of the next splat of the cell of key; at most as many as were counted.
    SplatsData* place(std::uint32_t key) {
        CellRecords& cell = cells[counter.numberOf(key)];
        SplatsData* const record = cell.next++;
        if (record >= cell.backedEnd) {
            memory.back(record, cell);
        }
        return record;
    }

private:
    // Continues behind the cells that are there.
    void makeCells(LODData& level);

    std::vector<CellRecords> cells; // by number
};

} // namespace Tavrin::GaussionSplat
