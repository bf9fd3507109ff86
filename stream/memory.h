// How the passes divide the memory that they may allocate, and the least that a conversion takes.
#pragma once

#include "stream/conversion.h"
#include "stream/pages.h"

#include <cstdint>

namespace Tavrin::SplatStream {

// How measure runs within its memory.
struct MeasurePlan {
    unsigned workers = 1;
    std::uint64_t windowRecords = 1;
    std::uint64_t windowFloats = 1; // of a worker's window
    std::uint64_t workerBytes = 0;  // of one worker, but for the cells that it counts
    std::uint64_t keptBytes = 0;    // for x and y of every splat; 0: they are read again where needed
    std::uint64_t keptRecords = 0;  // in one block of these
    std::uint64_t spareBytes = 0;   // for counting cells, all workers together
};

// How place runs within its memory.
struct PlacePlan {
    unsigned workers = 1;
    std::uint64_t windowRecords = 1;
    PagePlan pages;
    std::uint64_t mostPages = 0;
    std::uint64_t bytes = 0; // at its peak
};

// The splats that the choice of the grid goes by, before any are dropped.
std::uint64_t splatsExpected(const SplatSource::Source& source, const Settings& settings);

// Listed cells that have splats.
std::uint64_t filledCells(const Measured& measured);

// Within this many bytes, at least those of one worker.
MeasurePlan planMeasure(const SplatSource::Source& source, const Settings& settings, std::uint64_t bytes);

// Within settings.maxMemory. Throws TooLittleMemory.
PlacePlan planPlace(const Measured& measured, const Settings& settings);

// The bytes with which both passes succeed on one worker, and not with one byte less. The splats lie in this
// many cells, of whatever size, and so many more are listed again.
std::uint64_t leastMemory(const SplatSource::Source& source, std::uint64_t cells, std::uint64_t repeated,
                          const Settings& settings);

// Throws TooLittleMemory.
[[noreturn]] void refuseMemory(std::uint64_t least);

} // namespace Tavrin::SplatStream
