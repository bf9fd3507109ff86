// What a conversion will do and need.
#pragma once

#include "program/convert/conversion.h"
#include "program/convert/output_check.h"
#include "program/convert/warnings.h"
#include "program/scene/box.h"
#include "reader/grid.h"
#include "source/merge.h"
#include "stream/conversion.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// The sizes of a dataset's files. The texts are left out: they take a few thousand bytes.
struct DatasetBytes {
    std::uint64_t data = 0;
    std::uint64_t coefficients = 0;
    std::uint64_t index = 0;

    std::uint64_t all() const { return data + coefficients + index; }
};

DatasetBytes datasetBytes(std::uint64_t splats, std::uint64_t cells, bool hasCoefficients);

struct Plan {
    std::string input; // as given
    SplatStream::Measured measured;
    SplatSource::Ledger ledger;
    std::vector<std::string> kinds; // of the inputs
    std::vector<int> degrees;       // of the inputs
    std::string offset;             // of the dataset, and how exactly positions are kept
    double largestError = 0.0;      // of a position, in the scene's units
    std::array<double, 3> offsets{};
    std::string cropAdvice;     // an option to copy where splats lie far off; else empty
    Box extent;                 // of the finite positions
    Point move{};               // added to the positions of a single input to get those of the dataset
    Box box;                    // of the dataset
    bool isBoxMeasured = false; // by the program, because no header states one
    SplatReader::Grid grid;
    std::uint64_t largestCell = 0; // splats in the fullest
    DatasetBytes bytes;
    std::uint64_t metaBytesAtMost = 0;
    std::uint64_t logBytesAtMost = 0;
    std::uint64_t diskBytes = 0; // all files and room for the texts
    std::uint64_t freeDisk = 0;
    std::uint64_t memory = 0; // peak of the program
    std::uint64_t freeMemory = 0;
    Point positionStep{}; // by axis, in scene units: the distance between adjacent positions
    Point scaleStep{};    // by axis, in scene units: how finely scales are kept

    std::uint64_t records() const { return measured.read; }
    bool hasCoefficients() const { return measured.hasCoefficients; }
};

// The grid of a scene of `splats` splats in this box, as readers compute it from the meta document.
SplatReader::Grid gridOf(std::uint64_t splats, const Box& box);

// Measures the scene and works out what its dataset takes, without the fields that depend on the output's
// place. Throws a Failure: InputRefused; DoesNotFit when the memory is too small; ConversionFailed when the
// input changed meanwhile; Interrupted. `progress` gets the number of splats measured so far.
Plan measurePlan(const std::string& input, const SplatSource::Scene& scene, const Means& means,
                 const PassProgress& progress);

// The same, and compares with what the output's disk has. Throws a Failure (DoesNotFit) also when that is too
// small.
Plan makePlan(const std::string& input, const SplatSource::Scene& scene, const OutputPlace& output,
              const Means& means, Warnings& warnings, const PassProgress& progress);

} // namespace Tavrin::SplatProgram
