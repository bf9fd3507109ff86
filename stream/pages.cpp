#include "stream/pages.h"

#include "src/indexer_records.h"

#include <algorithm>

namespace Tavrin::SplatStream {

using GaussionSplat::dataRecordSize;
using GaussionSplat::packedCoefficientsSize;

namespace {

// Gathers cells of at most one page into runs that fit a page. Calls visit(isNewHolder, cell, isAlone) for
// every cell that has splats.
template <typename Visit>
void forEachHolder(const std::vector<Cell>& cells, std::uint64_t pageRecords, Visit visit) {
    std::uint64_t room = 0; // left in the run
    for (const Cell& cell : cells) {
        if (cell.splats == 0) {
            continue;
        }
        const bool isAlone = cell.splats > pageRecords;
        const bool isNew = isAlone || cell.splats > room;
        room = isAlone ? 0 : (isNew ? pageRecords : room) - cell.splats;
        visit(isNew, cell, isAlone);
    }
}

} // namespace

// `least`: a worker that finds no page for a cell fills in the records of the cells before it, then waits
// while the others do the same. Most pages then become free. Two kinds do not. The first are the holders'
// pages. The second are the worker's own pages for this cell: the whole ones, the page that was open before,
// and the cell's first and last page, which may be short.
//
// `wanted`: on average a window completes as many pages as its records fill, and these wait for the other
// workers' records. There are more only if all cells reach the end of a page at the same time.
PagePlan planPages(const std::vector<Cell>& cells, std::uint64_t pageRecords, std::uint64_t windowRecords,
                   unsigned workers) {
    PagePlan plan{.pageRecords = pageRecords};
    std::uint64_t all = 0; // pages of the output
    std::uint64_t at = 0;
    forEachHolder(cells, pageRecords, [&](bool isNew, const Cell& cell, bool isAlone) {
        plan.holders += isNew ? 1 : 0;
        const std::uint64_t ofCell = (at + cell.splats - 1) / pageRecords - at / pageRecords + 1;
        all += isAlone ? ofCell : isNew ? 1 : 0;
        at += cell.splats;
    });
    plan.least = leastPages(plan.holders, pageRecords, windowRecords);
    plan.wanted = std::min(all, plan.least + workers * (windowRecords / pageRecords + 1));
    return plan;
}

std::uint64_t PagePool::pageBytes(std::uint64_t pageRecords, bool hasCoefficients) {
    return pageRecords * (dataRecordSize + (hasCoefficients ? packedCoefficientsSize : 0)) + sizeof(Page) +
           sizeof(void*); // its entry in free_
}

PagePool::PagePool(std::uint64_t pageRecords, bool hasCoefficients, std::uint64_t most)
    : pageRecords_(pageRecords), hasCoefficients_(hasCoefficients), most_(most) {}

// Makes several pages at a time, in a block of whole huge pages: one, or three with coefficients.
void PagePool::makeMore() {
    const std::uint64_t dataBytes = pageRecords_ * dataRecordSize;
    const std::uint64_t coefficientBytes = hasCoefficients_ ? pageRecords_ * packedCoefficientsSize : 0;
    const std::uint64_t bytes = dataBytes + coefficientBytes;
    const std::uint64_t blockBytes = (hasCoefficients_ ? 3 : 1) * GaussionSplat::largePage;
    const std::uint64_t count = std::min(most_ - made_, std::max<std::uint64_t>(blockBytes / bytes, 1));
    memory_.push_back(GaussionSplat::makeLargeArray<std::byte>(count * bytes));
    pages_.push_back(std::make_unique<Page[]>(count));
    free_.reserve(made_ + count);
    std::byte* memory = memory_.back().get();
    for (std::uint64_t i = 0; i < count; ++i, memory += bytes) {
        Page& page = pages_.back()[i];
        page.data = memory;
        page.coefficients = hasCoefficients_ ? memory + dataBytes : nullptr;
        free_.push_back(&page);
    }
    made_ += count;
}

Page* PagePool::take() {
    const std::lock_guard lock(mutex_);
    if (free_.empty() && made_ < most_) {
        makeMore();
    }
    if (free_.empty()) {
        return nullptr;
    }
    Page* const page = free_.back();
    free_.pop_back();
    return page;
}

void PagePool::giveBack(Page* page) {
    {
        const std::lock_guard lock(mutex_);
        free_.push_back(page); // reserved: never throws
    }
    freed_.notify_one();
}

void PagePool::wait() {
    std::unique_lock lock(mutex_);
    freed_.wait(lock, [this] { return stopped_ || !free_.empty() || made_ < most_; });
}

void PagePool::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    freed_.notify_all();
}

Places::Places(const std::vector<Cell>& cells, std::uint64_t pageRecords) : pageRecords_(pageRecords) {
    std::uint64_t at = 0;
    forEachHolder(cells, pageRecords, [&](bool isNew, const Cell& cell, bool isAlone) {
        if (isNew) {
            holders_.push_back({.first = at, .end = at});
        }
        cells_.push_back({.next = at,
                          .end = at + cell.splats,
                          .holder = static_cast<std::uint32_t>(holders_.size() - 1),
                          .isAlone = isAlone});
        at += cell.splats;
        holders_.back().end = at;
    });
}

// Pages of a large cell end at multiples of their size, so they cover whole pages of the system's cache.
bool Places::open(Holder& holder, const CellState& cell, PagePool& pool) {
    Page* const page = pool.take();
    if (page == nullptr) {
        return false;
    }
    std::uint64_t first = holder.first;
    std::uint64_t end = holder.end;
    if (cell.isAlone) {
        first = cell.next;
        end = std::min(cell.end, (first / pageRecords_ + 1) * pageRecords_);
    }
    page->first = first;
    page->records = static_cast<std::uint32_t>(end - first);
    page->missing.store(page->records, std::memory_order_relaxed);
    holder.page = page;
    holder.left = end - first;
    if (cell.isAlone) {
        holder.first = first;
    }
    return true;
}

std::uint64_t Places::take(std::uint32_t number, std::uint64_t count, PagePool& pool,
                           std::vector<Segment>& segments) {
    CellState& cell = cells_[number];
    Holder& holder = holders_[cell.holder];
    std::uint64_t taken = 0;
    while (taken < count && (holder.page != nullptr || open(holder, cell, pool))) {
        const std::uint64_t size = std::min(count - taken, holder.left);
        segments.push_back({.page = holder.page,
                            .at = static_cast<std::uint32_t>(cell.next - holder.page->first),
                            .count = static_cast<std::uint32_t>(size)});
        cell.next += size;
        holder.left -= size;
        taken += size;
        if (holder.left == 0) {
            holder.page = nullptr;
        }
    }
    return taken;
}

} // namespace Tavrin::SplatStream
