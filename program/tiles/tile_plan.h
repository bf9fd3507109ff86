// What the conversion of one tile will take, for a table of many and for schedulers (docs/batch.md).
#pragma once

#include "program/convert/conversion.h"
#include "program/system/exit_status.h"
#include "source/merge.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace Tavrin::SplatProgram {

// Changes when a reader of plans has to.
inline constexpr int planVersion = 1;

// What is planned for, and how.
struct PlanWish {
    bool isScanned = false;          // every record is read; else the header alone
    unsigned threads = 1;            // of the conversion, at least 1
    std::uint64_t maxMemory = 0;     // bytes that its passes may allocate; 0: as many as they like
    SplatSource::SceneOptions scene; // how inputs are read; used by a scan alone
};

struct TilePlan {
    std::string input;                    // as given
    ExitStatus status = ExitStatus::done; // what a conversion is known to end with
    std::string line;                     // the reason where it is another one; else empty
    bool isKnown = false;                 // what follows was found

    std::string kind;
    int degree = 0;               // of the spherical harmonics
    std::uint64_t inputBytes = 0; // of the file
    std::uint64_t splats = 0;     // of the dataset; without a scan those of the header, dropped ones included
    std::optional<std::uint64_t> dropped; // splats
    std::optional<std::uint64_t> leftOut; // splats
    // At most so many without a scan; nothing where the header states no bounds. Exact with a scan.
    std::optional<std::uint64_t> cells;
    bool areCellsExact = false;
    std::uint64_t outputBytes = 0;  // data, coefficients and index; at most, without a scan
    std::uint64_t memory = 0;       // peak of the process, in bytes; at most, where cells are not exact
    std::uint64_t scratchBytes = 0; // of the disk beside the dataset, while it is converted
    double seconds = 0.0;           // very roughly
};

// The cells for which memory is planned where nothing is known of them: more than a square kilometre has.
inline constexpr std::uint64_t assumedCells = 1200;

// Bytes of records in the library's form that a processor converts a second, by the rough time. Measured are
// six times as many with input and output in memory; this is what one disk gives.
inline constexpr double assumedBytesPerSecond = 150e6;

// Plans one tile. What is wrong with it is in its status and line. Throws a Failure when it is interrupted.
// `progress` is told of the share of a scan that is done.
TilePlan planTile(const std::string& input, const PlanWish& wish,
                  const std::function<void(double share)>& progress);

} // namespace Tavrin::SplatProgram
