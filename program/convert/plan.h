// What a conversion will do and need.
#pragma once

#include "program/convert/conversion.h"
#include "program/convert/output_check.h"
#include "program/convert/warnings.h"
#include "program/scene/scene_comments.h"
#include "reader/grid.h"
#include "source/source.h"
#include "stream/conversion.h"

#include <cstdint>
#include <string>

namespace Tavrin::SplatProgram {

struct Plan {
    std::string input; // as given
    SplatStream::Measured measured;
    Box extent; // of the finite positions
    Box box;    // of the dataset
    SplatReader::Grid grid;
    std::uint64_t largestCell = 0; // splats in the fullest
    std::uint64_t dataBytes = 0;
    std::uint64_t coefficientBytes = 0;
    std::uint64_t indexBytes = 0;
    std::uint64_t metaBytesAtMost = 0;
    std::uint64_t logBytesAtMost = 0;
    std::uint64_t diskBytes = 0; // all files and room for the texts
    std::uint64_t freeDisk = 0;
    std::uint64_t memory = 0; // peak of the program
    std::uint64_t freeMemory = 0;
    Point positionStep{}; // by axis, in scene units: where positions can stand
    Point scaleStep{};    // by axis, in scene units: how finely scales are kept

    std::uint64_t records() const { return measured.read; }
    bool hasCoefficients() const { return measured.hasCoefficients; }
};

// Measures the source, works out what its dataset takes, and compares that with what the machine has. Throws
// a Failure: InputRefused, OutputRefused when the disk is too small, ConversionFailed when the input was
// written to meanwhile, or Interrupted. `progress` is told of the splats measured.
Plan makePlan(const std::string& input, const SplatSource::Source& source, const OutputPlace& output,
              const Means& means, Warnings& warnings, const PassProgress& progress);

} // namespace Tavrin::SplatProgram
