// Compares a whole dataset with the scene that it was made of.
#pragma once

#include "program/scene/scan_progress.h"
#include "reader/dataset.h"
#include "reader/findings.h"
#include "source/source.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// The errors of one attribute, over all splats and components.
struct AttributeError {
    std::string name;
    std::uint64_t values = 0;  // compared
    std::uint64_t skipped = 0; // not finite in the source, so no value is stored
    double largest = 0.0;      // absolute, in the attribute's units
    double squares = 0.0;
    double largestSteps = 0.0; // in quantiser steps

    // Adds the errors that another comparison of this attribute found.
    void add(const AttributeError& more);

    double rms() const;
};

struct Comparison {
    std::uint64_t splats = 0;  // of the source, without those that were dropped
    std::uint64_t found = 0;   // of these, in the dataset
    std::uint64_t leftOut = 0; // in no cell of the dataset
    std::vector<AttributeError> attributes;
};

// Compares every splat of a source with the dataset that was made of it. Positions must be equal bit for bit.
// Every other attribute may differ by half a step, since the stored value means the middle of its interval.
// Adds differences to `findings`. The memory depends on the number of cells alone. Throws a Failure when the
// source cannot be read or an interrupt was noted, and DatasetError when the dataset cannot be read.
Comparison compareWithSource(const SplatReader::Dataset& dataset, const SplatSource::Source& source,
                             SplatReader::Findings& findings, const ScanProgress& progress);

} // namespace Tavrin::SplatProgram
