// The result of a conversion, as text and as JSON.
#pragma once

#include "source/drop.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// The result of a published conversion.
struct Summary {
    std::string input;  // as given
    std::string output; // as given
    std::uint64_t read = 0;
    std::uint64_t written = 0;
    SplatSource::Ledger ledger; // read = written + dropped + left out
    std::uint64_t leftOut = 0;
    std::array<double, 3> offset{};
    std::string place;         // the offset, and how exactly positions are kept
    double largestError = 0.0; // of a position, in the scene's units
    std::uint64_t cells = 0;
    std::uint64_t dataBytes = 0;
    std::uint64_t coefficientBytes = 0;
    std::uint64_t indexBytes = 0;
    std::uint64_t metaBytes = 0;
    double seconds = 0.0; // from the start of the program to the publication
    std::vector<std::string> warnings;
    bool isSkipped = false; // an earlier run made the dataset; the other members describe that run
};

// One line for people.
std::string summaryText(const Summary& summary);

// The line of a run that had nothing to do (`isSkipped`).
std::string skippedText(const Summary& summary);

// The same as one JSON object on one line, for machines.
std::string summaryJson(const Summary& summary);

} // namespace Tavrin::SplatProgram
