#include "src/indexer_memory.h"

#include <algorithm>
#include <utility>

namespace Tavrin::GaussionSplat {

namespace {

// Addresses as numbers, because pages are counted across the bounds of allocations.
std::uintptr_t addressOf(const SplatsData* record) {
    return reinterpret_cast<std::uintptr_t>(record);
}

std::uintptr_t pageAtOrBehind(std::uintptr_t address) {
    return (address + largePage - 1) / largePage * largePage;
}

// The first record, starting with `from`, that has a byte at or after address.
SplatsData* recordReaching(std::uintptr_t address, SplatsData* from) {
    return from + (address - addressOf(from)) / sizeof(SplatsData);
}

// Bytes of the cell in front of its first huge page.
std::uint64_t headOf(const CellRecords& cell) {
    return pageAtOrBehind(addressOf(cell.next)) - addressOf(cell.next);
}

} // namespace

std::uint64_t largePagesIn(const CellRecords& cell) {
    const std::uintptr_t first = pageAtOrBehind(addressOf(cell.next));
    return first < addressOf(cell.end) ? (addressOf(cell.end) - first) / largePage : 0;
}

std::size_t cellsOnLargePages(const std::vector<CellRecords>& cells, std::uint64_t spareMemory,
                              std::uint64_t sparePages) {
    std::uint64_t pages = 0;
    std::uint64_t waste = 0;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (const std::uint64_t more = largePagesIn(cells[i]); more > 0) {
            pages += more;
            waste += largePage;
            const double covered =
                static_cast<double>(std::min(sparePages, pages)) / static_cast<double>(pages);
            if (static_cast<double>(waste) * (1.0 - covered) > static_cast<double>(spareMemory)) {
                return i;
            }
        }
    }
    return cells.size();
}

void RecordMemory::give(LargeArray<std::byte> room) {
    for (std::uint64_t at = 0; at < room.get_deleter().bytes; at += largePage) {
        spare_.push_back(room.get() + at);
    }
    roomPages_ = spare_.size();
    rooms_.push_back(std::move(room));
}

void RecordMemory::freeRooms() {
    spare_.erase(spare_.begin(), spare_.begin() + static_cast<std::ptrdiff_t>(roomPages_));
    roomPages_ = 0;
    rooms_.clear();
}

void RecordMemory::prepare(std::vector<CellRecords>& cells, std::uint64_t spareMemory) {
    // Each cell costs an ordinary page and about 300 bytes of bookkeeping.
    const std::uint64_t ofCells = cells.size() * (4096 + 300);
    const std::uint64_t budget = spareMemory - std::min(spareMemory, ofCells);
    const std::size_t large = cellsOnLargePages(cells, budget, spare_.size());
    std::uint64_t heads = 0;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        CellRecords& cell = cells[i];
        const std::uint64_t pages = i < large ? largePagesIn(cell) : 0;
        cell.backedEnd = cell.end;
        if (pages > 0) {
            const std::uintptr_t first = pageAtOrBehind(addressOf(cell.next));
            cell.backedEnd = recordReaching(first, cell.next);
            useLargePages(reinterpret_cast<void*>(first), pages * largePage);
            barePages_ += pages;
            heads += headOf(cell);
        } else {
            useOrdinaryPages(cell.next, addressOf(cell.end) - addressOf(cell.next));
        }
    }
    // Heads are filled while all spare pages and blocks still exist. Drop spare pages for what exceeds the
    // budget.
    for (std::uint64_t freed = budget; freed < heads && !spare_.empty(); freed += largePage) {
        dropSpare();
    }
    dropSurplus();
}

void RecordMemory::donate(void* page) {
    if (spare_.size() < barePages_ && largePagesMove()) {
        spare_.push_back(page);
    } else {
        releaseLargePage(page);
    }
}

void RecordMemory::withdrawDonations() {
    spare_.resize(roomPages_);
}

void RecordMemory::back(SplatsData* record, CellRecords& cell) {
    const std::uintptr_t page = (addressOf(record + 1) - 1) / largePage * largePage;
    --barePages_;
    if (!spare_.empty() && moveLargePage(spare_.back(), reinterpret_cast<void*>(page))) {
        spare_.pop_back();
        roomPages_ = std::min(roomPages_, spare_.size());
    }
    dropSurplus();
    const std::uintptr_t next = page + largePage;
    cell.backedEnd = next + largePage <= addressOf(cell.end) ? recordReaching(next, record) : cell.end;
}

void RecordMemory::dropSpare() {
    releaseLargePage(spare_.back());
    spare_.pop_back();
    roomPages_ = std::min(roomPages_, spare_.size());
}

void RecordMemory::dropSurplus() {
    while (spare_.size() > barePages_) {
        dropSpare();
    }
}

} // namespace Tavrin::GaussionSplat
