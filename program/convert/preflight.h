#pragma once

#include "program/convert/input_check.h"
#include "program/convert/output_check.h"
#include "program/convert/verdict.h"
#include "program/terminal/progress.h"

#include <cstdint>
#include <optional>

namespace Tavrin::SplatProgram {

// What a conversion will do and need, computed from the input alone.
struct Plan {
    InputFacts input;
    SceneExtent extent;
    Box box;                    // of the dataset: as stated, or as the converter measures it
    bool isBoxMeasured = false; // by a pass of the converter's own over the file
    SplatReader::Grid grid;
    CellUse cells;
    bool areCellsKnown = true; // false when the grid is too wide to number its cells
    std::uint64_t dataBytes = 0;
    std::uint64_t coefficientBytes = 0;
    std::uint64_t indexBytes = 0;
    std::uint64_t metaBytesAtMost = 0;
    std::uint64_t logBytesAtMost = 0;
    std::uint64_t diskBytes = 0; // all files and room for the texts
    std::uint64_t freeDisk = 0;
    std::uint64_t memory = 0; // peak of the conversion
    std::uint64_t freeMemory = 0;
    Point positionStep{}; // by axis, in scene units: where positions can stand
    Point scaleStep{};    // by axis, in scene units: how finely scales are kept
};

// What a conversion of so many splats holds in memory at its peak: 288 bytes a splat, and besides either the
// last block of input records or the gathered records of the fullest cell.
std::uint64_t peakMemory(std::uint64_t splats, const SplatLayout& layout, std::uint64_t largestCell);

// Checks and measures the input, and compares its needs with what the machine has. Refusals are Failures, or
// warnings when the run is unchecked. Nothing is returned only for an unchecked input that cannot be
// measured.
std::optional<Plan> makePlan(const std::optional<InputFacts>& input, const OutputPlace& output,
                             Verdict& verdict, Progress& progress);

} // namespace Tavrin::SplatProgram
