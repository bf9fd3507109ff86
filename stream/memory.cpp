#include "stream/memory.h"

#include "src/large_pages.h"
#include "src/splatheader.h"
#include "stream/cell_counts.h"
#include "stream/key_table.h"

#include <algorithm>
#include <bit>
#include <optional>

namespace Tavrin::SplatStream {

using namespace GaussionSplat;

namespace {

constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;

// The window of measure, and of place if memory is short.
constexpr std::uint64_t smallWindow = 1024; // records
// The window of place. The larger it is, the more records of a cell get adjacent places. This size, 1 MB with
// coefficients, still fits the second-level cache.
constexpr std::uint64_t largeWindow = 4096;

// The records of a window: what tests ask for, or `chosen`.
std::uint64_t windowOf(std::uint64_t records, const Settings& settings, std::uint64_t chosen = smallWindow) {
    return std::clamp<std::uint64_t>(settings.windowRecords > 0 ? settings.windowRecords : chosen, 1,
                                     std::clamp<std::uint64_t>(records, 1, mebibyte));
}

// What one worker of place allocates.
std::uint64_t placeWorkerBytes(bool hasCoefficients, std::uint64_t windowRecords, std::uint64_t cells) {
    // Key, slot number, and the slot itself.
    constexpr std::uint64_t ofRecord = 2 * sizeof(std::uint32_t) + 64;
    return windowRecords * (recordLayout(hasCoefficients).floats * sizeof(float) + ofRecord) +
           cells * sizeof(std::uint32_t);
}

// What the workers share, without the pages.
std::uint64_t sharedBytes(std::uint64_t cells, std::uint64_t repeated) {
    return KeyTable::bytesFor(cells) + Places::bytesFor(cells) + (cells + repeated) * sizeof(Cell);
}

std::uint64_t leastToPlace(bool hasCoefficients, std::uint64_t windowRecords, std::uint64_t cells,
                           std::uint64_t repeated) {
    return placeWorkerBytes(hasCoefficients, windowRecords, cells) + sharedBytes(cells, repeated) +
           leastPages(cells, 1, windowRecords) * PagePool::pageBytes(1, hasCoefficients);
}

// The memory of a run without a limit. A little is enough if few cells fill side by side. Many cells get
// more, because writing small pieces is slow.
constexpr std::uint64_t fewCellsBudget = 48 * mebibyte;
constexpr std::uint64_t manyCellsBudget = 440 * mebibyte;
constexpr std::uint64_t smallPage = 1024; // records

// The plan with the largest pages that fit.
std::optional<PlacePlan> placeWithin(const Measured& measured, const Settings& settings, unsigned workers,
                                     std::uint64_t budget, std::uint64_t window) {
    PlacePlan plan;
    plan.workers = workers;
    plan.windowRecords = windowOf(measured.read, settings, window);
    const std::uint64_t cells = filledCells(measured);
    const std::uint64_t fixed =
        workers * placeWorkerBytes(measured.hasCoefficients, plan.windowRecords, cells) +
        sharedBytes(cells, measured.repeatedCells);
    const std::uint64_t largest =
        std::bit_ceil(std::clamp<std::uint64_t>(measured.splats, 1, mostPageRecords));
    for (std::uint64_t size = largest; size > 0; size /= 2) {
        plan.pages = planPages(measured.cells, size, plan.windowRecords, workers);
        const std::uint64_t pageBytes = PagePool::pageBytes(size, measured.hasCoefficients);
        const std::uint64_t least = fixed + plan.pages.least * pageBytes;
        if (least <= budget) {
            plan.mostPages = std::min(plan.pages.wanted, plan.pages.least + (budget - least) / pageBytes);
            plan.bytes = fixed + plan.mostPages * pageBytes;
            return plan;
        }
    }
    return std::nullopt;
}

} // namespace

std::uint64_t filledCells(const Measured& measured) {
    std::uint64_t cells = 0;
    for (const Cell& cell : measured.cells) {
        cells += cell.splats > 0 ? 1 : 0;
    }
    return cells;
}

std::uint64_t splatsExpected(const SplatSource::Source& source, const Settings& settings) {
    return settings.countAs > 0 ? settings.countAs : source.count;
}

namespace {

// The plan before memory is divided: the window, and what else a worker needs.
MeasurePlan leastMeasure(const SplatSource::Source& source, const Settings& settings) {
    MeasurePlan plan;
    plan.windowRecords = windowOf(source.count, settings);
    const bool ownPositions = !statesBounds(source.params) && source.boxPositions() > 0;
    plan.windowFloats = plan.windowRecords * recordLayout(source.hasCoefficients || ownPositions).floats;
    constexpr std::uint64_t ofWorker = 2048; // its findings, range by range
    plan.workerBytes = plan.windowFloats * sizeof(float) + plan.windowRecords * sizeof(std::uint32_t) +
                       ofWorker + CellCounts::leastBytes;
    return plan;
}

} // namespace

// Plans as many workers as fit. Positions are kept if they leave half of the memory to the cells.
MeasurePlan planMeasure(const SplatSource::Source& source, const Settings& settings, std::uint64_t bytes) {
    MeasurePlan plan = leastMeasure(source, settings);
    const std::uint64_t windows = source.count / plan.windowRecords + 1;
    plan.workers = static_cast<unsigned>(
        std::clamp<std::uint64_t>(std::min<std::uint64_t>(settings.threads, windows), 1,
                                  std::max<std::uint64_t>(bytes / plan.workerBytes, 1)));
    plan.spareBytes = bytes - plan.workers * plan.workerBytes;
    if (splatsExpected(source, settings) > singleCellSplats && !statesBounds(source.params)) {
        constexpr std::uint64_t positionBytes = 2 * sizeof(float);
        plan.keptRecords = std::min(source.count, largePage / positionBytes);
        // The last block of each worker may be almost empty.
        const std::uint64_t blocks = source.count / plan.keptRecords + plan.workers;
        const std::uint64_t kept = blocks * plan.keptRecords * positionBytes;
        plan.keptBytes = kept <= plan.spareBytes / 2 ? kept : 0;
        plan.spareBytes -= plan.keptBytes;
    }
    return plan;
}

std::uint64_t measureMemory(const SplatSource::Source& source, std::uint64_t cells, std::uint64_t repeated,
                            const Settings& settings) {
    const MeasurePlan plan = planMeasure(
        source, settings, std::max(settings.maxMemory, leastMeasure(source, settings).workerBytes));
    return plan.workers * plan.workerBytes + plan.keptBytes +
           std::min(plan.spareBytes, CellCounts::peakBytes(cells, repeated, plan.workers));
}

std::uint64_t placeMemory(const Measured& measured, const Settings& settings) {
    return planPlace(measured, settings).bytes;
}

PlacePlan planPlace(const Measured& measured, const Settings& settings) {
    const unsigned threads = std::max(settings.threads, 1u);
    const std::uint64_t limit = settings.maxMemory;
    for (const std::uint64_t budget : {fewCellsBudget, manyCellsBudget}) {
        const auto plan = placeWithin(measured, settings, threads, std::min(limit, budget), largeWindow);
        if (plan && (plan->pages.pageRecords >= smallPage || budget >= std::min(limit, manyCellsBudget))) {
            return *plan;
        }
    }
    for (unsigned workers = threads; workers > 0; workers /= 2) {
        if (const auto plan = placeWithin(measured, settings, workers, limit, smallWindow)) {
            return *plan;
        }
    }
    refuseMemory(std::max(measured.leastMemory,
                          leastToPlace(measured.hasCoefficients, windowOf(measured.read, settings),
                                       filledCells(measured), measured.repeatedCells)));
}

std::uint64_t leastMemory(const SplatSource::Source& source, std::uint64_t cells, std::uint64_t repeated,
                          const Settings& settings) {
    return std::max(leastMeasure(source, settings).workerBytes + CellCounts::peakBytes(cells, repeated, 1),
                    leastToPlace(source.hasCoefficients, windowOf(source.count, settings), cells, repeated));
}

void refuseMemory(std::uint64_t least) {
    throw TooLittleMemory("the conversion needs " + std::to_string(least) + " bytes of memory", least);
}

} // namespace Tavrin::SplatStream
