// Divides the memory that the passes may allocate, and finds the least that a conversion needs.
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
    std::uint64_t workerBytes = 0;  // of one worker, without the cells that it counts
    std::uint64_t keptBytes = 0;    // for x and y of every splat; 0: they are read again if needed
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

// The number of splats that decides the grid, before any are dropped.
std::uint64_t splatsExpected(const SplatSource::Source& source, const Settings& settings);

// The number of listed cells that have splats.
std::uint64_t filledCells(const Measured& measured);

// The plan of measure within `bytes`, or for one worker if that needs more.
MeasurePlan planMeasure(const SplatSource::Source& source, const Settings& settings, std::uint64_t bytes);

// The plan of place within settings.maxMemory. Throws TooLittleMemory.
PlacePlan planPlace(const Measured& measured, const Settings& settings);

// The least bytes with which both passes succeed, on one worker, for splats in `cells` cells of any size and
// `repeated` repeated cells.
std::uint64_t leastMemory(const SplatSource::Source& source, std::uint64_t cells, std::uint64_t repeated,
                          const Settings& settings);

// Throws TooLittleMemory.
[[noreturn]] void refuseMemory(std::uint64_t least);

} // namespace Tavrin::SplatStream
