// A whole dataset against the scene that it was made of.
#pragma once

#include "program/scene/scan_progress.h"
#include "reader/dataset.h"
#include "reader/findings.h"
#include "source/source.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// How far one attribute came back from its source, over all splats and components.
struct AttributeError {
    std::string name;
    std::uint64_t values = 0;  // compared
    std::uint64_t skipped = 0; // not finite in the source, so stored as no value
    double largest = 0.0;      // absolute, in the attribute's units
    double squares = 0.0;
    double largestSteps = 0.0; // in quantiser steps

    // Takes in what another comparison of this attribute found.
    void add(const AttributeError& more);

    double rms() const;
};

struct Comparison {
    std::uint64_t splats = 0;  // of the source, those that were dropped left out
    std::uint64_t found = 0;   // of these, in the dataset
    std::uint64_t leftOut = 0; // in no cell of the dataset
    std::vector<AttributeError> attributes;
};

// Compares every splat that a source gives with the dataset that was made of it: positions bit for bit, every
// other attribute within half a step (the stored value stands for the middle of its interval). Differences
// are added to `findings`. Memory is bounded by the number of cells. Throws a Failure when the source cannot
// be read or an interrupt was noted, and DatasetError when the dataset cannot.
Comparison compareWithSource(const SplatReader::Dataset& dataset, const SplatSource::Source& source,
                             SplatReader::Findings& findings, const ScanProgress& progress);

} // namespace Tavrin::SplatProgram
