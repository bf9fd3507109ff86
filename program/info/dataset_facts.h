// The facts that `info` prints about a dataset.
#pragma once

#include "program/info/distribution.h"
#include "program/scene/scan_progress.h"
#include "reader/dataset.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// One quantised attribute: its range and the step of each axis, in its own units.
struct QuantiserFacts {
    std::string name;
    std::vector<double> min;
    std::vector<double> max;
    std::vector<double> step;
};

struct DatasetFacts {
    std::string name; // as given
    SplatReader::Dataset dataset;
    std::uint64_t metaBytes = 0;
    std::uint64_t indexBytes = 0;
    std::uint64_t dataBytes = 0;
    std::uint64_t coefficientBytes = 0;
    // Splats of a cell at level 0.
    std::uint32_t smallestCell = 0;
    std::uint32_t medianCell = 0;
    std::uint32_t largestCell = 0;
    double positionHalfStep = 0.0; // of single precision at the largest coordinate of the box
    std::vector<QuantiserFacts> quantisers{};
    bool scanned = false;      // every record was read
    std::uint64_t sampled = 0; // records behind the percentiles
    std::vector<Distribution> attributes{};
};

// With `scan` every record is read, so that the smallest and largest values are those of the whole dataset;
// without it a sample is read. Throws DatasetError when the folder is not a dataset or cannot be read.
DatasetFacts readDatasetFacts(const std::string& name, bool scan, const ScanProgress& progress);

} // namespace Tavrin::SplatProgram
