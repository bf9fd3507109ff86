#include "stream/place.h"

#include "src/chunker_decode.h"
#include "src/indexer_quantise.h"
#include "src/large_pages.h"
#include "src/platform.h"
#include "stream/key_table.h"
#include "stream/memory.h"
#include "stream/output_file.h"
#include "stream/pages.h"
#include "stream/windows.h"
#include "threads/crew.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <optional>

namespace Tavrin::SplatStream {

using namespace GaussionSplat;
using SplatThreads::Crew;

namespace {

constexpr std::uint64_t manyCells = 1024;
constexpr std::uint32_t notListed = UINT32_MAX;

// The workers take their places one after the other, in window order.
class Turn {
public:
    // False when the crew was stopped.
    bool wait(std::uint64_t window, const Crew& crew) {
        for (int spin = 0; spin < 4096; ++spin) {
            if (next_.load(std::memory_order_acquire) == window) {
                return !crew.isStopped();
            }
        }
        std::unique_lock lock(mutex_);
        passed_.wait(lock, [&] {
            return next_.load(std::memory_order_acquire) == window || isStopped_ || crew.isStopped();
        });
        return !isStopped_ && !crew.isStopped();
    }

    void pass(std::uint64_t window) {
        {
            const std::lock_guard lock(mutex_);
            next_.store(window + 1, std::memory_order_release);
        }
        passed_.notify_all();
    }

    void stop() {
        {
            const std::lock_guard lock(mutex_);
            isStopped_ = true;
        }
        passed_.notify_all();
    }

private:
    std::mutex mutex_; // guards changes of next_ and isStopped_, so that a worker about to sleep misses none
    std::condition_variable passed_;
    std::atomic<std::uint64_t> next_ = 0;
    bool isStopped_ = false;
};

class PlacePass {
public:
    PlacePass(const SplatSource::Source& scene, const Measured& facts, const Settings& chosen,
              OutputFile& dataFile, OutputFile* coefficientFile);

    void run();

private:
    // One cell of a window: its number of records there, and the place of the next one.
    struct Slot {
        std::uint32_t cell = 0;
        std::uint32_t count = 0;
        std::size_t segment = 0; // the first of its segments, then the current one
        std::uint32_t left = 0;  // in the segment
        std::byte* data = nullptr;
        std::byte* coefficients = nullptr;
    };

    struct Worker {
        LargeArray<float> window;
        std::vector<std::uint32_t> keys;   // then numbers of slots
        std::vector<std::uint32_t> slotOf; // by cell; notListed while the window has none
        std::vector<Slot> slots;
        std::vector<Places::Segment> segments;
    };

    const SplatSource::Source& source_;
    const Measured& measured_;
    OutputFile& data_;
    OutputFile* coefficients_; // null without
    PlacePlan plan_;
    Windows windows_;
    std::size_t recordFloats_;
    FastQuantiser quantiser_;
    bool isSingle_;
    bool hasManyCells_; // more than the first-level cache holds
    KeyTable numbers_;
    Places places_;
    PagePool pool_;
    Crew crew_;
    Turn turn_;
    std::atomic<std::uint64_t> nextWindow_ = 0;
    std::atomic<std::uint64_t> written_ = 0; // records

    void work();
    void doWindow(std::uint64_t window, Worker& worker);
    void findSlots(std::uint64_t count, Worker& worker);
    std::optional<std::size_t> takePlaces(std::uint64_t window, std::uint64_t count, Worker& worker);
    void fill(std::size_t first, std::size_t end, std::uint64_t count, Worker& worker);
    void settle(Slot& slot, const Worker& worker) const;
    static void prefetchPlace(const Slot& slot);
    void complete(const Places::Segment& segment);
    [[noreturn]] void failChanged() const;
};

PlacePass::PlacePass(const SplatSource::Source& scene, const Measured& facts, const Settings& chosen,
                     OutputFile& dataFile, OutputFile* coefficientFile)
    : source_(scene), measured_(facts), data_(dataFile), coefficients_(coefficientFile),
      plan_(planPlace(facts, chosen)), windows_{.records = scene.count, .windowRecords = plan_.windowRecords},
      recordFloats_(recordLayout(facts.hasCoefficients).floats),
      quantiser_(quantiseSettings(facts.bounding, true)), isSingle_(facts.countedSplats <= singleCellSplats),
      hasManyCells_(filledCells(facts) > manyCells), numbers_(filledCells(facts)),
      places_(facts.cells, plan_.pages.pageRecords),
      pool_(plan_.pages.pageRecords, facts.hasCoefficients, plan_.mostPages), crew_(chosen.progress) {
    std::uint32_t number = 0;
    for (const Cell& cell : facts.cells) {
        if (cell.splats > 0) {
            numbers_.insert(cell.key, number++);
        }
    }
    crew_.onStop([this] {
        turn_.stop();
        pool_.stop();
    });
}

void PlacePass::failChanged() const {
    throw SplatSource::SourceChanged(
        "the scene's records are not those that were measured: start again once nothing writes to the input");
}

// Counts the window's records by cell and numbers its cells.
void PlacePass::findSlots(std::uint64_t count, Worker& worker) {
    std::uint32_t* const keys = worker.keys.data();
    if (isSingle_) {
        std::fill_n(keys, count, 0);
    } else {
        cellKeys(worker.window.get(), recordFloats_, count, measured_.grid, keys);
    }
    worker.slots.clear();
    for (std::uint64_t i = 0; i < count; ++i) {
        if (hasManyCells_ && i + keysAhead < count) {
            numbers_.prefetch(keys[i + keysAhead]);
        }
        const std::uint32_t cell = numbers_.find(keys[i]);
        if (cell == KeyTable::none) {
            keys[i] = notListed;
            continue;
        }
        std::uint32_t& slot = worker.slotOf[cell];
        if (slot == notListed) {
            slot = static_cast<std::uint32_t>(worker.slots.size());
            worker.slots.emplace_back().cell = cell;
            places_.prefetchCell(cell);
        }
        ++worker.slots[slot].count;
        keys[i] = slot;
    }
    for (const Slot& slot : worker.slots) {
        worker.slotOf[slot.cell] = notListed;
        places_.prefetchHolder(slot.cell); // before the turn, because all others wait for it
    }
}

// Takes places for all records of the window, in its turn. If memory is short, pages become free only when
// others are full, so slots that have their places are filled in first. Returns the number of these slots;
// nothing when the crew was stopped.
std::optional<std::size_t> PlacePass::takePlaces(std::uint64_t window, std::uint64_t count, Worker& worker) {
    worker.segments.clear();
    if (!turn_.wait(window, crew_)) {
        return std::nullopt;
    }
    std::size_t filled = 0;
    for (std::size_t i = 0; i < worker.slots.size(); ++i) {
        Slot& slot = worker.slots[i];
        slot.segment = worker.segments.size();
        if (slot.count > places_.left(slot.cell)) {
            failChanged();
        }
        for (std::uint64_t left = slot.count;;) {
            left -= places_.take(slot.cell, left, pool_, worker.segments);
            if (left == 0) {
                break;
            }
            fill(filled, i, count, worker);
            filled = i;
            pool_.wait();
            if (crew_.isStopped()) {
                return std::nullopt;
            }
        }
    }
    turn_.pass(window);
    return filled;
}

void PlacePass::settle(Slot& slot, const Worker& worker) const {
    const Places::Segment& segment = worker.segments[slot.segment];
    slot.left = segment.count;
    slot.data = segment.page->data + std::size_t{segment.at} * dataRecordSize;
    if (coefficients_ != nullptr) {
        slot.coefficients = segment.page->coefficients + std::size_t{segment.at} * packedCoefficientsSize;
    }
}

// Prefetch distance, in splats.
constexpr std::uint64_t splatsAhead = 16;

// Above this many cells in a window, a cell's splats come at long intervals. A place is then prefetched
// splatsAhead splats ahead, otherwise with the cell's previous splat.
constexpr std::size_t manySlots = 256;

// By the time the splat comes, the place may have moved on by a record or two.
void PlacePass::prefetchPlace(const Slot& slot) {
    prefetch(slot.data);
    prefetch(slot.coefficients);
}

// Quantises the records of some slots into their places, and writes the pages that become full.
void PlacePass::fill(std::size_t first, std::size_t end, std::uint64_t count, Worker& worker) {
    if (first == end) {
        return;
    }
    const std::size_t firstSegment = worker.slots[first].segment;
    const std::size_t endSegment =
        end < worker.slots.size() ? worker.slots[end].segment : worker.segments.size();
    for (std::size_t i = first; i < end; ++i) {
        settle(worker.slots[i], worker);
    }
    const float* splat = worker.window.get();
    SplatsData record;
    const bool isScattered = worker.slots.size() > manySlots;
    for (std::uint64_t i = 0; i < count; ++i, splat += recordFloats_) {
        if (isScattered && i + splatsAhead < count && worker.keys[i + splatsAhead] != notListed) {
            prefetchPlace(worker.slots[worker.keys[i + splatsAhead]]);
        }
        if (worker.keys[i] - first >= end - first) { // notListed is never in between
            continue;
        }
        Slot& slot = worker.slots[worker.keys[i]];
        if (slot.left == 0) {
            ++slot.segment;
            settle(slot, worker);
        }
        quantiser_.quantise(splat, record);
        std::memcpy(slot.data, &record, dataRecordSize);
        slot.data += dataRecordSize;
        if (coefficients_ != nullptr) {
            std::memcpy(slot.coefficients, record.packed, packedCoefficientsSize);
            slot.coefficients += packedCoefficientsSize;
        }
        if (!isScattered) {
            prefetchPlace(slot); // the cell's next record comes soon
        }
        --slot.left;
    }
    for (std::size_t i = firstSegment; i < endSegment; ++i) {
        complete(worker.segments[i]);
    }
}

// The worker that fills in the last records of a page writes it.
void PlacePass::complete(const Places::Segment& segment) {
    Page& page = *segment.page;
    if (page.missing.fetch_sub(segment.count, std::memory_order_acq_rel) != segment.count) {
        return;
    }
    data_.write(page.first * dataRecordSize, page.data, page.records * dataRecordSize);
    if (coefficients_ != nullptr) {
        coefficients_->write(page.first * packedCoefficientsSize, page.coefficients,
                             page.records * packedCoefficientsSize);
    }
    written_.fetch_add(page.records, std::memory_order_relaxed);
    pool_.giveBack(&page);
}

void PlacePass::doWindow(std::uint64_t window, Worker& worker) {
    const std::uint64_t count =
        source_.read(windows_.first(window), windows_.size(window), worker.window.get());
    findSlots(count, worker);
    decodeRecords(worker.window.get(), count, measured_.hasCoefficients);
    const std::optional<std::size_t> filled = takePlaces(window, count, worker);
    if (filled) {
        fill(*filled, worker.slots.size(), count, worker);
        crew_.advance(windows_.size(window));
    }
}

void PlacePass::work() {
    Worker worker;
    worker.window = makeLargeArray<float>(windows_.windowRecords * recordFloats_);
    worker.keys.resize(windows_.windowRecords);
    worker.slotOf.assign(filledCells(measured_), notListed);
    worker.slots.reserve(windows_.windowRecords);
    worker.segments.reserve(windows_.windowRecords);
    for (;;) {
        const std::uint64_t window = nextWindow_.fetch_add(1, std::memory_order_relaxed);
        if (window >= windows_.count() || crew_.isStopped()) {
            return;
        }
        doWindow(window, worker);
    }
}

void PlacePass::run() {
    const std::uint64_t listed = measured_.splats - measured_.leftOut;
    const auto pause = [this] { crew_.advance(0); };
    data_.reserve(listed * dataRecordSize, pause);
    if (coefficients_ != nullptr) {
        coefficients_->reserve(listed * packedCoefficientsSize, pause);
    }
    crew_.run(plan_.workers, [this](unsigned) { work(); });
    source_.requireUnchanged();
    if (written_.load() != listed) {
        failChanged();
    }
    crew_.reportEnd();
}

} // namespace

void placeRecords(const SplatSource::Source& source, const Measured& measured,
                  const std::filesystem::path& folder, const Settings& settings) {
    const DefaultFloatEnvironment environment;
    OutputFile data(folder / "data.bin");
    std::optional<OutputFile> coefficients;
    if (measured.hasCoefficients) {
        coefficients.emplace(folder / "shcoef.bin");
    }
    PlacePass(source, measured, settings, data, coefficients ? &*coefficients : nullptr).run();
    data.close();
    if (coefficients) {
        coefficients->close();
    }
}

} // namespace Tavrin::SplatStream
