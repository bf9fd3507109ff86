#include "src/indexer_files.h"
#include "src/lanes.h"
#include "src/large_pages.h"
#include "src/platform.h"
#include "src/splatheader.h"
#include "stream/cell_counts.h"
#include "stream/conversion.h"
#include "stream/distinct_keys.h"
#include "stream/memory.h"
#include "stream/raw_ranges.h"
#include "stream/windows.h"
#include "threads/crew.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace Tavrin::SplatStream {

using namespace GaussionSplat;
using SplatThreads::Crew;

namespace {

struct Box {
    Vector3 min;
    Vector3 max;
};

bool lieIn(const float* position, const Box& box) {
    return position[0] >= box.min.x && position[0] <= box.max.x && position[1] >= box.min.y &&
           position[1] <= box.max.y && position[2] >= box.min.z && position[2] <= box.max.z;
}

bool holds(const Box& box, const RawRanges::Positions& ranges) {
    const float min[3] = {ranges[0].min, ranges[1].min, ranges[2].min};
    const float max[3] = {ranges[0].max, ranges[1].max, ranges[2].max};
    return lieIn(min, box) && lieIn(max, box);
}

// The x and y of some splats, kept because the grid is known only when all of them are read. Each worker
// fills its own, so that no two workers touch a fresh huge page at once. The system would then clear it
// twice.
struct KeptPositions {
    LargeArray<float> positions; // two floats each
    std::uint64_t count = 0;
};

// What one worker finds in its windows.
struct Found {
    explicit Found(bool hasCoefficients) : ranges(hasCoefficients) {}

    RawRanges ranges;
    ValueRange finite[3]; // of the finite coordinates
    std::uint64_t splats = 0;
    std::uint64_t notFinite = 0;
    std::uint64_t outside = 0;
    std::vector<KeptPositions> kept;
    CellCounts cells;
    ValueRange scan[3]; // of the positions that decide the box

    LargeArray<float> window;
    std::vector<std::uint32_t> keys;
};

// The first pass over the scene.
struct MeasurePass {
    const SplatSource::Source& source;
    const Settings& settings;
    Windows windows;
    std::size_t recordFloats;
    std::optional<Box> statedBox;
    MeasurePlan plan;
    std::optional<ChunkGrid> expectedGrid;  // set if cells are counted in this pass
    std::atomic<bool> hasManyCells = false; // more than the workers' tables hold, so they are counted again
    std::vector<std::unique_ptr<Found>> found; // by worker

    MeasurePass(const SplatSource::Source& scene, const Settings& chosen);

    Measured run();

private:
    void makeWorkers();
    void readAll();
    void readWindow(std::uint64_t window, Found& own);
    void lookAtPositions(std::uint64_t count, const RawRanges::Positions& ranges, Found& own);
    void keepPositions(std::uint64_t count, Found& own) const;
    void dropPositions();
    void scanBox();
    void settleBox(Measured& measured) const;
    void countCells(Measured& measured);
    bool countAgain(const ChunkGrid& grid);
    bool joinCounts();
    void countAlone(const ChunkGrid& grid);
    DistinctKeys countDistinct(const ChunkGrid& grid);
    void requireMemory(std::uint64_t cells, std::uint64_t repeated, Measured& measured) const;
    void countKept(const ChunkGrid& grid, Crew& crew);
    void countWindow(std::uint64_t window, const ChunkGrid& grid, Found& own);
    void addKeys(const float* records, std::size_t stride, std::uint64_t count, const ChunkGrid& grid,
                 Found& own);
    void forEachWindow(const Windows& all, Crew& crew,
                       const std::function<void(std::uint64_t, Found&)>& body);
};

// The most memory for finding out how much a conversion needs that does not fit its limit.
constexpr std::uint64_t refusalBytes = std::uint64_t{16} << 20;

// Beyond this many repeated cells the number is not exact, because no memory holds them.
constexpr std::uint64_t mostRepeats = std::uint64_t{1} << 50;

// How often the walk lists this key again. A file can state bounds so far apart that the list fits no memory.
std::uint64_t repeatsOf(const ChunkGrid& grid, std::uint32_t key) {
    const std::uint64_t steps = countSteps(grid, key);
    return steps - std::min<std::uint64_t>(steps, 1);
}

// A scene of one cell can be refused without a pass.
std::uint64_t bytesToMeasure(const SplatSource::Source& source, const Settings& settings) {
    const std::uint64_t least = leastMemory(source, 1, 0, settings);
    if (settings.maxMemory >= least) {
        return settings.maxMemory;
    }
    if (splatsExpected(source, settings) <= singleCellSplats) {
        refuseMemory(least);
    }
    return least + refusalBytes;
}

MeasurePass::MeasurePass(const SplatSource::Source& scene, const Settings& chosen)
    : source(scene), settings(chosen), recordFloats(recordLayout(scene.hasCoefficients).floats),
      plan(planMeasure(scene, chosen, bytesToMeasure(scene, chosen))) {
    windows = {.records = scene.count, .windowRecords = plan.windowRecords};
    const std::uint64_t most = splatsExpected(source, settings);
    if (statesBounds(source.params)) {
        const Params& params = source.params;
        statedBox = Box{.min = {params.minx, params.miny, params.minz},
                        .max = {params.maxx, params.maxy, params.maxz}};
        if (most > singleCellSplats) {
            expectedGrid = gridFor(static_cast<std::int64_t>(most), statedBox->min, statedBox->max, {});
        }
    }
    makeWorkers();
}

void MeasurePass::makeWorkers() {
    for (unsigned worker = 0; worker < plan.workers; ++worker) {
        found.push_back(std::make_unique<Found>(source.hasCoefficients));
        found.back()->window = makeLargeArray<float>(plan.windowFloats);
        found.back()->keys.resize(windows.windowRecords);
        found.back()->cells.limit(plan.spareBytes / plan.workers);
    }
}

void MeasurePass::forEachWindow(const Windows& all, Crew& crew,
                                const std::function<void(std::uint64_t, Found&)>& body) {
    crew.share(plan.workers, all.count(), [&](unsigned worker, std::uint64_t window) {
        body(window, *found[worker]);
        crew.advance(0);
    });
}

// The window's ranges decide most cases. Single coordinates are checked only if one is not finite or lies
// outside the stated box.
void MeasurePass::lookAtPositions(std::uint64_t count, const RawRanges::Positions& ranges, Found& own) {
    const float* const records = own.window.get();
    std::uint64_t notFinite = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        const float* const position = records + i * recordFloats;
        // A finite number minus itself is zero. For anything else the difference is NaN.
        const float all =
            (position[0] - position[0]) + (position[1] - position[1]) + (position[2] - position[2]);
        notFinite += all == 0.0f ? 0 : 1;
    }
    own.notFinite += notFinite;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        if (notFinite == 0) {
            own.finite[axis].min = minimum(own.finite[axis].min, ranges[axis].min);
            own.finite[axis].max = maximum(own.finite[axis].max, ranges[axis].max);
            continue;
        }
        for (std::uint64_t i = 0; i < count; ++i) {
            const float value = records[i * recordFloats + axis];
            if (std::isfinite(value)) {
                own.finite[axis].widen(value);
            }
        }
    }
    if (statedBox && (notFinite > 0 || !(holds(*statedBox, ranges)))) {
        for (std::uint64_t i = 0; i < count; ++i) {
            own.outside += lieIn(records + i * recordFloats, *statedBox) ? 0 : 1;
        }
    }
}

void MeasurePass::keepPositions(std::uint64_t count, Found& own) const {
    const float* record = own.window.get() + positionAt;
    for (std::uint64_t left = count; left > 0;) {
        if (own.kept.empty() || own.kept.back().count == plan.keptRecords) {
            own.kept.push_back({.positions = makeLargeArray<float>(plan.keptRecords * 2)});
        }
        KeptPositions& kept = own.kept.back();
        const std::uint64_t more = std::min(left, plan.keptRecords - kept.count);
        float* place = kept.positions.get() + 2 * kept.count;
        for (std::uint64_t i = 0; i < more; ++i, record += recordFloats, place += 2) {
            place[0] = record[0];
            place[1] = record[1];
        }
        kept.count += more;
        left -= more;
    }
}

void MeasurePass::dropPositions() {
    for (const std::unique_ptr<Found>& own : found) {
        own->kept.clear();
    }
}

void MeasurePass::readWindow(std::uint64_t window, Found& own) {
    const std::uint64_t first = windows.first(window);
    const std::uint64_t count = source.read(first, windows.size(window), own.window.get());
    own.splats += count;
    lookAtPositions(count, own.ranges.widen(own.window.get(), count, first), own);
    if (expectedGrid && !hasManyCells.load(std::memory_order_relaxed)) {
        try {
            addKeys(own.window.get(), recordFloats, count, *expectedGrid, own);
        } catch (const CellCounts::Full&) {
            hasManyCells.store(true, std::memory_order_relaxed);
        }
    } else if (plan.keptBytes > 0) {
        keepPositions(count, own);
    }
}

void MeasurePass::readAll() {
    Crew crew(settings.progress);
    forEachWindow(windows, crew, [&](std::uint64_t window, Found& own) {
        readWindow(window, own);
        crew.advance(windows.size(window));
    });
    crew.reportEnd();
}

void MeasurePass::scanBox() {
    Crew crew(settings.progress);
    const Windows all{.records = source.boxPositions(), .windowRecords = windows.windowRecords};
    forEachWindow(all, crew, [&](std::uint64_t window, Found& own) {
        source.readBoxPositions(all.first(window), all.size(window), own.window.get());
        for (std::uint64_t i = 0; i < 3 * all.size(window); ++i) {
            own.scan[i % 3].widen(own.window[i]);
        }
    });
}

// The measured box starts from the origin and so contains it. A source may state the box of its records
// instead.
void MeasurePass::settleBox(Measured& measured) const {
    measured.isBoxStated = statedBox.has_value();
    if (statedBox) {
        measured.bboxMin = statedBox->min;
        measured.bboxMax = statedBox->max;
        return;
    }
    float min[3] = {};
    float max[3] = {};
    ValueRange records[3];
    for (const std::unique_ptr<Found>& own : found) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            const ValueRange& column = own->ranges.column(positionAt + axis);
            records[axis].min = minimum(records[axis].min, column.min);
            records[axis].max = maximum(records[axis].max, column.max);
            const ValueRange& range = source.boxPositions() > 0 ? own->scan[axis] : column;
            min[axis] = minimum(min[axis], range.min);
            max[axis] = maximum(max[axis], range.max);
        }
    }
    measured.bboxMin = {min[0], min[1], min[2]};
    measured.bboxMax = {max[0], max[1], max[2]};
    source.stateBox({records[0].min, records[1].min, records[2].min},
                    {records[0].max, records[1].max, records[2].max}, measured.params);
    if (const Params& params = measured.params; statesBounds(params)) {
        measured.isBoxStated = true;
        measured.bboxMin = {params.minx, params.miny, params.minz};
        measured.bboxMax = {params.maxx, params.maxy, params.maxz};
    }
}

void MeasurePass::addKeys(const float* records, std::size_t stride, std::uint64_t count,
                          const ChunkGrid& grid, Found& own) {
    cellKeys(records, stride, count, grid, own.keys.data());
    constexpr std::size_t manyCells = 1024; // more than the first-level cache holds
    const bool looksAhead = own.cells.size() > manyCells;
    for (std::uint64_t i = 0; i < count; ++i) {
        if (looksAhead && i + keysAhead < count) {
            own.cells.prefetch(own.keys[i + keysAhead]);
        }
        own.cells.add(own.keys[i]);
    }
}

void MeasurePass::countKept(const ChunkGrid& grid, Crew& crew) {
    std::vector<const KeptPositions*> all;
    for (const std::unique_ptr<Found>& own : found) {
        for (const KeptPositions& kept : own->kept) {
            all.push_back(&kept);
        }
    }
    forEachWindow({.records = all.size()}, crew, [&](std::uint64_t number, Found& own) {
        const KeptPositions& kept = *all[number];
        for (std::uint64_t first = 0; first < kept.count; first += windows.windowRecords) {
            addKeys(kept.positions.get() + 2 * first, 2, std::min(kept.count - first, windows.windowRecords),
                    grid, own);
        }
    });
}

void MeasurePass::countWindow(std::uint64_t window, const ChunkGrid& grid, Found& own) {
    const std::uint64_t count = source.read(windows.first(window), windows.size(window), own.window.get());
    addKeys(own.window.get(), recordFloats, count, grid, own);
}

// False when the cells do not fit the workers' tables.
bool MeasurePass::countAgain(const ChunkGrid& grid) {
    for (const std::unique_ptr<Found>& own : found) {
        own->cells.clear();
    }
    Crew crew(settings.progress);
    crew.advance(source.count); // all splats count as done already, so progress does not start again
    try {
        if (plan.keptBytes > 0) {
            countKept(grid, crew);
        } else {
            forEachWindow(windows, crew,
                          [&](std::uint64_t window, Found& own) { countWindow(window, grid, own); });
        }
    } catch (const CellCounts::Full&) {
        return false;
    }
    return true;
}

// Joins all counts in the first worker's table. False when they do not fit.
bool MeasurePass::joinCounts() {
    CellCounts& all = found.front()->cells;
    std::uint64_t others = 0;
    for (std::size_t worker = 1; worker < found.size(); ++worker) {
        others += found[worker]->cells.bytes();
    }
    if (others > plan.spareBytes) {
        return false;
    }
    all.limit(plan.spareBytes - others);
    try {
        for (std::size_t worker = 1; worker < found.size(); ++worker) {
            all.join(found[worker]->cells);
            found[worker]->cells.clear();
        }
    } catch (const CellCounts::Full&) {
        return false;
    }
    return true;
}

// Counts on one worker, which has all of the memory.
void MeasurePass::countAlone(const ChunkGrid& grid) {
    dropPositions();
    found.resize(1);
    Settings alone = settings;
    alone.threads = 1;
    plan = planMeasure(source, alone, bytesToMeasure(source, settings));
    plan.spareBytes += std::exchange(plan.keptBytes, 0);
    found.front()->cells.limit(plan.spareBytes);
    if (!countAgain(grid)) {
        found.front()->cells.clear();
        const DistinctKeys distinct = countDistinct(grid);
        refuseMemory(leastMemory(source, distinct.keys, std::min(distinct.sum, mostRepeats), settings));
    }
}

// The cells that splats lie in, listed or not, and those that are repeated.
DistinctKeys MeasurePass::countDistinct(const ChunkGrid& grid) {
    Found& own = *found.front();
    const auto pass = [&](const KeyVisitor& visit) {
        Crew crew(settings.progress);
        crew.advance(source.count);
        forEachWindow(windows, crew, [&](std::uint64_t window, Found&) {
            const std::uint64_t count =
                source.read(windows.first(window), windows.size(window), own.window.get());
            cellKeys(own.window.get(), recordFloats, count, grid, own.keys.data());
            visit(own.keys.data(), count);
        });
    };
    return countDistinctKeys(std::max(plan.spareBytes, refusalBytes), pass,
                             [&](std::uint32_t key) { return repeatsOf(grid, key); });
}

void MeasurePass::requireMemory(std::uint64_t cells, std::uint64_t repeated, Measured& measured) const {
    measured.occupiedCells = cells;
    measured.repeatedCells = repeated;
    measured.leastMemory = leastMemory(source, cells, repeated, settings);
    if (measured.leastMemory > settings.maxMemory) {
        refuseMemory(measured.leastMemory);
    }
}

// The walk may meet a key again. It then lists a cell without splats.
void listCells(const CellCounts& counts, Measured& measured) {
    std::uint64_t listed = 0;
    std::vector<bool> isListed(counts.size());
    const std::vector<std::uint32_t> keys = walkGrid(measured.grid, counts.keys());
    measured.cells.reserve(keys.size());
    for (const std::uint32_t key : keys) {
        const std::uint32_t number = counts.numberOf(key);
        const std::uint64_t splats = isListed[number] ? 0 : counts.splats(number);
        isListed[number] = true;
        measured.cells.push_back({.key = key, .splats = splats});
        listed += splats;
    }
    measured.leftOut = measured.splats - listed;
}

void MeasurePass::countCells(Measured& measured) {
    const std::uint64_t counted = settings.countAs > 0 ? settings.countAs : measured.splats;
    measured.countedSplats = counted;
    measured.grid = gridFor(static_cast<std::int64_t>(counted), measured.bboxMin, measured.bboxMax, {});
    if (counted <= singleCellSplats) {
        measured.cells = {{.key = 0, .splats = measured.splats}};
        requireMemory(1, 0, measured);
        return;
    }
    const bool isCounted = expectedGrid && *expectedGrid == measured.grid && !hasManyCells.load();
    if (!(isCounted || countAgain(measured.grid)) || !joinCounts()) {
        countAlone(measured.grid);
    }
    dropPositions();
    const CellCounts& all = found.front()->cells;
    std::uint64_t repeated = 0;
    for (const std::uint32_t key : all.keys()) {
        repeated = std::min(repeated + repeatsOf(measured.grid, key), mostRepeats);
    }
    requireMemory(all.size(), repeated, measured);
    listCells(all, measured);
}

Measured MeasurePass::run() {
    readAll();
    if (!statedBox && source.boxPositions() > 0) {
        scanBox();
    }
    Measured measured;
    measured.read = source.count;
    measured.hasCoefficients = source.hasCoefficients;
    measured.params = source.params;
    settleBox(measured);
    RawRanges ranges(source.hasCoefficients);
    ValueRange finite[3];
    for (const std::unique_ptr<Found>& own : found) {
        measured.splats += own->splats;
        measured.notFinite += own->notFinite;
        measured.outside += own->outside;
        ranges.widen(own->ranges);
        for (std::size_t axis = 0; axis < 3; ++axis) {
            finite[axis].min = minimum(finite[axis].min, own->finite[axis].min);
            finite[axis].max = maximum(finite[axis].max, own->finite[axis].max);
        }
    }
    measured.positionMin = {finite[0].min, finite[1].min, finite[2].min};
    measured.positionMax = {finite[0].max, finite[1].max, finite[2].max};
    measured.bounding = ranges.decoded();
    countCells(measured);
    source.requireUnchanged();
    return measured;
}

} // namespace

Measured measure(const SplatSource::Source& source, const Settings& settings) {
    const DefaultFloatEnvironment environment;
    return MeasurePass(source, settings).run();
}

} // namespace Tavrin::SplatStream
