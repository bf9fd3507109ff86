// The output record of one splat, the memory that holds all of them, and the levels they are grouped into.
#pragma once

#include "src/large_pages.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Tavrin::GaussionSplat {

// One quantised splat, little-endian. Bytes 0 to 31 are its record in data.bin; the packed or the raw
// coefficients are its record in shcoef.bin. What the chosen layout does not fill stays unset and is never
// written out.
struct SplatsData {
    float position[3];
    std::uint8_t colour[4]; // red, green, blue, opacity
    std::uint16_t scale[3];
    std::uint8_t rotation[4]; // a 32-bit word that stands unaligned
    std::uint16_t normal[3];
    std::uint32_t packed[16]; // one word a coefficient, then zeros
    float raw[48];            // R0, G0, B0, R1, ... and three zeros
};
static_assert(sizeof(SplatsData) == 288 && alignof(SplatsData) == 4);
static_assert(offsetof(SplatsData, position) == 0 && offsetof(SplatsData, colour) == 12);
static_assert(offsetof(SplatsData, scale) == 16 && offsetof(SplatsData, rotation) == 22);
static_assert(offsetof(SplatsData, normal) == 26 && offsetof(SplatsData, packed) == 32);
static_assert(offsetof(SplatsData, raw) == 96);

inline constexpr std::size_t dataRecordSize = 32;
inline constexpr std::size_t packedCoefficientsSize = sizeof(SplatsData::packed);
inline constexpr std::size_t rawCoefficientsSize = sizeof(SplatsData::raw);

// One large block that the cells of a level take their records from: counted first, reserved exactly, freed
// when the last cell is.
//
// Memory that the system hands out has to be cleared by it first, which costs more than filling the records.
// So pages of the decoded blocks that nobody reads any more, and pages that were touched before for this
// purpose, are put in the place of pages of the arena that nobody has touched yet.
//
// Cells that are filled side by side have a page each that holds little at first. Where there are too many of
// them for that, the arena is on large pages in its first part alone, and on ordinary ones behind.
struct RecordArena {
    LargeArray<std::byte> block;
    std::uint64_t size;                // bytes
    std::uint64_t used = 0;            // bytes given to cells
    std::vector<std::uint8_t> settled; // for each large page: it has memory of its own, or ordinary pages
    std::uint64_t unsettled;           // large pages that are not
    std::vector<void*> spare;          // large pages of other blocks, free to be moved here
    std::size_t given = 0; // so many of them, the first, were given for good: withdrawOffers keeps them

    // Of bytes, the first largeBytes on large pages, up to a part of one. What is smaller than a large page
    // is not on one.
    RecordArena(std::uint64_t bytes, std::uint64_t largeBytes)
        : block(makeLargeArray<std::byte>(bytes)), size(bytes),
          settled((bytes + largePage - 1) / largePage, 1),
          unsettled(largeBytes < bytes || bytes < largePage ? largeBytes / largePage : settled.size()) {
        std::fill_n(settled.begin(), unsettled, std::uint8_t{0});
        if (const std::uint64_t large = unsettled * largePage; large < bytes && bytes >= largePage) {
            useOrdinaryPages(block.get() + large, bytes - large);
        }
    }

    // Offer a large page of another block that nobody reads any more. What no record will need goes back to
    // the system at once.
    void offer(void* page) {
        if (spare.size() < unsettled && largePagesMove()) {
            spare.push_back(page);
        } else {
            releaseLargePage(page);
        }
    }

    void withdrawOffers() { spare.resize(given); }

    bool holds(const void* pointer) const { return pointer >= block.get() && pointer < block.get() + size; }

    // Call before the first write to record, which stands in this arena. What it returns stands behind it:
    // the records before that, from record on, have memory and need no call of their own.
    SplatsData* settle(SplatsData* record) {
        const auto at = static_cast<std::uint64_t>(reinterpret_cast<std::byte*>(record) - block.get());
        const std::uint64_t last = (at + sizeof(SplatsData) - 1) / largePage;
        settlePage(at / largePage);
        settlePage(last);
        return record + (std::min((last + 1) * largePage, size) - at) / sizeof(SplatsData);
    }

private:
    void settlePage(std::uint64_t page) {
        if (settled[page] == 0) {
            settled[page] = 1;
            --unsettled;
            if (!spare.empty()) {
                moveSpare(page);
            }
        }
    }

    void moveSpare(std::uint64_t page);
};

// Takes memory from an arena while it has some, else from the heap, and constructs elements without clearing
// them: the bytes that are never written out are never touched either.
template <typename Element>
struct RecordAllocator {
    using value_type = Element;
    using propagate_on_container_move_assignment = std::true_type;
    using propagate_on_container_swap = std::true_type;

    std::shared_ptr<RecordArena> arena;

    RecordAllocator() = default;
    explicit RecordAllocator(std::shared_ptr<RecordArena> shared) : arena(std::move(shared)) {}
    template <typename Other>
    RecordAllocator(const RecordAllocator<Other>& other) : arena(other.arena) {}

    Element* allocate(std::size_t count) {
        if (arena && count <= (arena->size - arena->used) / sizeof(Element)) {
            void* const memory = arena->block.get() + arena->used;
            arena->used += count * sizeof(Element);
            return static_cast<Element*>(memory);
        }
        return std::allocator<Element>().allocate(count);
    }

    void deallocate(Element* elements, std::size_t count) noexcept {
        if (!arena || !arena->holds(elements)) {
            std::allocator<Element>().deallocate(elements, count);
        }
    }

    template <typename Other, typename... Arguments>
    void construct(Other* place, Arguments&&... arguments) {
        if constexpr (sizeof...(Arguments) == 0) {
            ::new (static_cast<void*>(place)) Other;
        } else {
            ::new (static_cast<void*>(place)) Other(std::forward<Arguments>(arguments)...);
        }
    }

    template <typename Other>
    bool operator==(const RecordAllocator<Other>& other) const {
        return arena == other.arena;
    }
};

// The splats of one cell at one level, in the order of the chunk list and of each chunk.
using SplatCell = std::vector<SplatsData, RecordAllocator<SplatsData>>;

// A hash map with the settings that every map of the indexer has: 8 initial buckets, maximum load factor 1.
template <typename Key, typename Value>
struct IndexMap : std::unordered_map<Key, Value> {
    IndexMap() : std::unordered_map<Key, Value>(8) { this->max_load_factor(1.0f); }
};

// One level: its splats by cell key. The key holds the X cell index in bits 0 to 15 and the Y index in bits
// 16 to 31.
struct LODData {
    std::uint32_t splatCount = 0;
    std::shared_ptr<IndexMap<std::uint32_t, std::shared_ptr<SplatCell>>> cells =
        std::make_shared<IndexMap<std::uint32_t, std::shared_ptr<SplatCell>>>();
};

using LevelMap = IndexMap<std::uint32_t, std::shared_ptr<LODData>>;

} // namespace Tavrin::GaussionSplat
