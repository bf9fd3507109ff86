// Counting and filling the cells of one level while the index is built.
#pragma once

#include "src/chunker_decode.h"
#include "src/indexer_quantise.h"
#include "src/indexer_records.h"

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

namespace Tavrin::GaussionSplat {

// Which cell a splat belongs to: the one cell with key 0, or the grid's.
struct CellRule {
    bool single = true;
    ChunkGrid grid;

    std::uint32_t keyOf(const float* splat) const {
        return single ? 0 : cellKey(splat[positionAt], splat[positionAt + 1], grid);
    }
};

// The cells of one level: first counted, then reserved exactly, then filled in the order that splats are
// placed.
class CellTable {
public:
    // Add count splats to the cell of key.
    void count(std::uint32_t key, std::uint64_t splats) { slots[slotOf(key)].count += splats; }

    // Make a vector of exactly the counted size for each cell in level, all from one large block that is not
    // cleared. Throws AllocationError.
    void reserve(LODData& level);

    // The place of the next splat of the cell of key; at most as many as were counted.
    SplatsData* place(std::uint32_t key) {
        SplatsData* const record = slots[slotOf(key)].next++;
        arena->settle(record);
        return record;
    }

    // Offer memory that nobody reads any more, a large page of a block from allocateLarge, for records to
    // come.
    void offer(void* page) { arena->spare.push_back(page); }

private:
    struct Slot {
        std::uint32_t key;
        std::uint64_t count;
        SplatsData* next;
    };
    // Remembers where a key was found: neighbouring splats tend to share cells, and a scene has far fewer
    // cells than entries.
    struct Remembered {
        std::uint32_t key = 0;
        std::uint32_t slotAndOne = 0; // 0: empty
    };
    static constexpr std::size_t rememberedCount = 4096; // a power of two

    std::shared_ptr<RecordArena> arena; // set by reserve
    std::vector<Slot> slots;
    IndexMap<std::uint32_t, std::uint32_t> slotOfKey;
    std::array<Remembered, rememberedCount> remembered;

    std::uint32_t slotOf(std::uint32_t key) {
        const Remembered& entry = remembered[hashOf(key)];
        return entry.key == key && entry.slotAndOne != 0 ? entry.slotAndOne - 1 : findSlot(key);
    }

    static std::size_t hashOf(std::uint32_t key) { return (key ^ key >> 10) % rememberedCount; }

    std::uint32_t findSlot(std::uint32_t key);
};

} // namespace Tavrin::GaussionSplat
