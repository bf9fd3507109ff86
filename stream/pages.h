// Cuts the output into pages: pieces of records that are filled in memory and written whole.
//
// A page belongs to one large cell or to a run of small ones, so that it is open as briefly as possible. All
// positions count records of the output, cell by cell.
#pragma once

#include "src/kernels.h"
#include "src/large_pages.h"
#include "stream/conversion.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace Tavrin::SplatStream {

// The most records of a page. Larger pages are not written faster.
inline constexpr std::uint64_t mostPageRecords = 4096;

// How a scene's cells are cut into pages of one size.
struct PagePlan {
    std::uint64_t pageRecords = 1; // a power of two
    std::uint64_t holders = 0; // large cells and runs of small ones: each has a page that waits for records
    std::uint64_t least = 0;   // pages with which the pass cannot come to a stop
    std::uint64_t wanted = 0;  // pages with which workers seldom wait; at most those of the output
};

// The pages with which a pass over `holders` holders cannot come to a stop.
constexpr std::uint64_t leastPages(std::uint64_t holders, std::uint64_t pageRecords,
                                   std::uint64_t windowRecords) {
    return holders + windowRecords / pageRecords + 3;
}

// Cuts the cells into pages of `pageRecords` records. A window has `windowRecords` records.
PagePlan planPages(const std::vector<Cell>& cells, std::uint64_t pageRecords, std::uint64_t windowRecords,
                   unsigned workers);

// A page that is being filled.
struct Page {
    std::uint64_t first = 0;                // its first record in the output
    std::uint32_t records = 0;              // of the page
    std::atomic<std::uint32_t> missing = 0; // records that are not filled in yet
    std::byte* data = nullptr;              // records * 32 bytes
    std::byte* coefficients = nullptr;      // records * 64 bytes; null without coefficients
};

// Memory for pages. Makes as many as are needed, up to a limit, and reuses them. Thread-safe.
class PagePool {
public:
    PagePool(std::uint64_t pageRecords, bool hasCoefficients, std::uint64_t most);

    // A free page, or null while the limit is in use. Throws std::bad_alloc.
    Page* take();
    void giveBack(Page* page);
    // Returns when a page is free or stop was called.
    void wait();
    void stop();

    static std::uint64_t pageBytes(std::uint64_t pageRecords, bool hasCoefficients);

private:
    std::uint64_t pageRecords_;
    bool hasCoefficients_;
    std::uint64_t most_;
    std::mutex mutex_;
    std::condition_variable freed_;
    bool stopped_ = false;
    std::uint64_t made_ = 0;
    std::vector<Page*> free_;
    std::vector<std::unique_ptr<Page[]>> pages_;
    std::vector<GaussionSplat::LargeArray<std::byte>> memory_;

    void makeMore();
};

// The places of the next records of each cell. Not thread-safe: the workers take their places in turn.
class Places {
public:
    Places(const std::vector<Cell>& cells, std::uint64_t pageRecords);

    // Places of adjacent records of one cell in one page.
    struct Segment {
        Page* page;
        std::uint32_t at; // in the page
        std::uint32_t count;
    };

    // The number of records of a cell without a place. `cell` counts only cells that have splats.
    std::uint64_t left(std::uint32_t cell) const { return cells_[cell].end - cells_[cell].next; }

    // Prefetch the cache lines that take will read, first those of the cells, then those of their holders.
    void prefetchCell(std::uint32_t cell) const { GaussionSplat::prefetch(&cells_[cell]); }
    void prefetchHolder(std::uint32_t cell) const { GaussionSplat::prefetch(&holders_[cells_[cell].holder]); }

    // Appends the places of the next `count` records of a cell, at most left(cell), to `segments`. Returns
    // their number, which is smaller if the pool has no more pages.
    std::uint64_t take(std::uint32_t cell, std::uint64_t count, PagePool& pool,
                       std::vector<Segment>& segments);

    static std::uint64_t bytesFor(std::uint64_t cells) {
        return cells * (sizeof(CellState) + sizeof(Holder));
    }

private:
    struct CellState {
        std::uint64_t next;
        std::uint64_t end;
        std::uint32_t holder;
        bool isAlone; // in its holder
    };
    // The open page of a large cell or of a run of small ones.
    struct Holder {
        Page* page = nullptr;
        std::uint64_t first = 0; // of a run: its extent
        std::uint64_t end = 0;
        std::uint64_t left = 0; // places of the open page that are not taken yet
    };

    std::uint64_t pageRecords_;
    std::vector<CellState> cells_;
    std::vector<Holder> holders_;

    bool open(Holder& holder, const CellState& cell, PagePool& pool);
};

} // namespace Tavrin::SplatStream
