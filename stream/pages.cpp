#include "stream/pages.h"

#include "src/indexer_records.h"

#include <algorithm>

namespace Tavrin::SplatStream {

using GaussionSplat::dataRecordSize;
using GaussionSplat::packedCoefficientsSize;

namespace {

// Gathers cells of at most a page into runs that fit one. visit(isNewHolder, cell, isAlone) for every cell
// that has splats.
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

// A worker that finds no page for a cell fills in the records of the cells before, and waits while the others
// do. Then all pages but the holders' and its own for this one cell are on their way to be free: those of so
// many whole pages, the one that was there before and the cell's first and last, which may be short.
PagePlan planPages(const std::vector<Cell>& cells, std::uint64_t pageRecords, std::uint64_t windowRecords,
                   unsigned workers) {
    PagePlan plan{.pageRecords = pageRecords};
    forEachHolder(cells, pageRecords, [&](bool isNew, const Cell&, bool) { plan.holders += isNew ? 1 : 0; });
    const std::uint64_t ofWindow = windowRecords / pageRecords + 3;
    plan.least = plan.holders + ofWindow;
    plan.wanted = plan.least + workers * (std::min(plan.holders, windowRecords) + ofWindow);
    return plan;
}

std::uint64_t PagePool::pageBytes(std::uint64_t pageRecords, bool hasCoefficients) {
    return pageRecords * (dataRecordSize + (hasCoefficients ? packedCoefficientsSize : 0)) + sizeof(Page) +
           sizeof(Page*);
}

PagePool::PagePool(std::uint64_t pageRecords, bool hasCoefficients, std::uint64_t most)
    : m_pageRecords(pageRecords), m_hasCoefficients(hasCoefficients), m_most(most) {}

// Some pages at a time, in one block of a few large pages.
void PagePool::makeMore() {
    const std::uint64_t dataBytes = m_pageRecords * dataRecordSize;
    const std::uint64_t coefficientBytes = m_hasCoefficients ? m_pageRecords * packedCoefficientsSize : 0;
    const std::uint64_t bytes = dataBytes + coefficientBytes;
    const std::uint64_t count =
        std::min(m_most - m_made, std::max<std::uint64_t>(GaussionSplat::largePage / bytes, 1));
    m_memory.push_back(GaussionSplat::makeLargeArray<std::byte>(count * bytes));
    m_pages.push_back(std::make_unique<Page[]>(count));
    m_free.reserve(m_made + count);
    std::byte* memory = m_memory.back().get();
    for (std::uint64_t i = 0; i < count; ++i, memory += bytes) {
        Page& page = m_pages.back()[i];
        page.data = memory;
        page.coefficients = memory + dataBytes;
        m_free.push_back(&page);
    }
    m_made += count;
}

Page* PagePool::take() {
    const std::lock_guard lock(m_mutex);
    if (m_free.empty() && m_made < m_most) {
        makeMore();
    }
    if (m_free.empty()) {
        return nullptr;
    }
    Page* const page = m_free.back();
    m_free.pop_back();
    return page;
}

void PagePool::giveBack(Page* page) {
    {
        const std::lock_guard lock(m_mutex);
        m_free.push_back(page); // reserved: never throws
    }
    m_freed.notify_one();
}

void PagePool::wait() {
    std::unique_lock lock(m_mutex);
    m_freed.wait(lock, [this] { return m_stopped || !m_free.empty() || m_made < m_most; });
}

void PagePool::stop() {
    {
        const std::lock_guard lock(m_mutex);
        m_stopped = true;
    }
    m_freed.notify_all();
}

Places::Places(const std::vector<Cell>& cells, std::uint64_t pageRecords) : m_pageRecords(pageRecords) {
    std::uint64_t at = 0;
    forEachHolder(cells, pageRecords, [&](bool isNew, const Cell& cell, bool isAlone) {
        if (isNew) {
            m_holders.push_back({.first = at, .end = at});
        }
        m_cells.push_back({.next = at,
                           .end = at + cell.splats,
                           .holder = static_cast<std::uint32_t>(m_holders.size() - 1),
                           .isAlone = isAlone});
        at += cell.splats;
        m_holders.back().end = at;
    });
}

// Pages of a large cell end at multiples of their size, so that they lie on whole pages of the system's
// cache.
bool Places::open(Holder& holder, const CellState& cell, PagePool& pool) {
    Page* const page = pool.take();
    if (page == nullptr) {
        return false;
    }
    std::uint64_t first = holder.first;
    std::uint64_t end = holder.end;
    if (cell.isAlone) {
        first = cell.next;
        end = std::min(cell.end, (first / m_pageRecords + 1) * m_pageRecords);
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
    CellState& cell = m_cells[number];
    Holder& holder = m_holders[cell.holder];
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
