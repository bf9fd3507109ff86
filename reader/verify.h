// Verifies every relation that a finished dataset must satisfy.
#pragma once

#include "reader/findings.h"
#include "reader/meta.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>

namespace Tavrin::SplatReader {

enum class VerifyLevel {
    quick, // the meta document, sizes and the whole index
    full   // every record as well
};

struct VerifyOptions {
    VerifyLevel level = VerifyLevel::quick;
    std::size_t findingsPerKind = 10; // the rest of a kind is only counted
    unsigned threads = 0;             // of the full level; 0: as many as the machine has processors
    // Called now and then during the full level, by the calling thread, with records read and records in all.
    // It may throw to end the verification.
    std::function<void(std::uint64_t, std::uint64_t)> progress;
};

// The smallest and largest quantised value seen.
struct ValueSpan {
    std::uint32_t lowest = UINT32_MAX;
    std::uint32_t highest = 0;
};

// Statistics of the quantised values of one component, over all records.
struct ComponentUse : ValueSpan {
    std::uint64_t atZero = 0;    // records at quantised value 0
    std::uint64_t atMaximum = 0; // records at the largest quantised value
};

struct RecordUse {
    std::uint64_t records = 0;
    std::array<ComponentUse, 3> colour;
    ComponentUse opacity;
    std::array<ComponentUse, 3> scale;
    std::array<ComponentUse, 3> normal;
    std::array<ValueSpan, 3> coefficient; // red, green, blue, over all 15 of each record; packed form alone
    std::uint64_t undefinedRotations = 0; // word 0: the source's rotation was not a number
};

struct VerifyReport {
    Findings findings;
    std::optional<Meta> meta;           // when the document can be used
    std::uint64_t cells = 0;            // entries of the index
    std::uint64_t splatsHeld = 0;       // over all cells and levels, as the index counts
    std::uint64_t splatsLeftOut = 0;    // splats of the input that the dataset does not hold
    std::uint64_t dataBytes = 0;        // of data.bin
    std::uint64_t coefficientBytes = 0; // of shcoef.bin
    std::uint64_t indexBytes = 0;       // of index.bin
    std::uint64_t metaBytes = 0;        // of the meta document
    std::optional<RecordUse> use;       // full level, when the records could be read

    bool sound() const { return findings.errorCount() == 0; }
};

// Verifies the dataset in `folder`. Never throws because of the files' contents: every fault becomes a
// finding. The memory depends on the file windows and the meta document, not on any count.
//
// Splats left out are counted separately. They are no finding in a scene with a grid, since the converter
// leaves out what lies outside the grid. A scene with a single cell cannot leave any out, so there they are
// an error.
VerifyReport verifyDataset(const std::filesystem::path& folder, const VerifyOptions& options = {});

// Bytes of the file windows of the full level, for a dataset of `records` records and `cells` index entries.
// `threads` is at least 1.
std::uint64_t verifyMemory(std::uint64_t records, std::uint64_t cells, bool hasCoefficients,
                           unsigned threads);

} // namespace Tavrin::SplatReader
