// One scene in every form that the program reads: what converting it takes beside the canonical form, and
// beside unpacking alone.
#pragma once

#include "bench/measure.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace bench {

struct Layout {
    std::string kind; // a KIND of the program foreign, or "canonical"
    std::uint64_t splats = 0;
    std::uint64_t inputBytes = 0;
    std::vector<measure::Run> runs;       // the whole command
    std::vector<double> passes;           // seconds from its start to the end of writing: both passes
    std::vector<measure::Run> unpackings; // of an SPZ file into nothing, on one thread
};

// Writes the canonical scene with coefficients in every form to `folder` and converts each `runs` times
// there. The rounds are interleaved, so that a slow minute of the machine affects all forms.
std::vector<Layout> measureLayouts(const std::filesystem::path& scene, const std::filesystem::path& folder,
                                   int runs);

// Prints a Markdown table.
void printLayouts(const std::vector<Layout>& layouts);

} // namespace bench
