// Estimates what the conversion of one tile takes, for tables and schedulers (docs/batch.md).
#pragma once

#include "program/convert/conversion.h"
#include "program/system/exit_status.h"
#include "source/merge.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace Tavrin::SplatProgram {

// Raised when readers of plans have to change.
inline constexpr int planVersion = 1;

// The conditions that a plan assumes, and how exact it is.
struct PlanWish {
    bool isScanned = false;          // every record is read; else the header alone
    unsigned threads = 1;            // of the conversion, at least 1
    std::uint64_t maxMemory = 0;     // bytes that its passes may allocate; 0: no limit
    SplatSource::SceneOptions scene; // how inputs are read; only a scan uses it
};

struct TilePlan {
    std::string input;                    // as given
    ExitStatus status = ExitStatus::done; // of the conversion, as far as it is known
    std::string line;                     // the reason if the status is not `done`; else empty
    bool isKnown = false;                 // the fields below are set

    std::string kind;
    int degree = 0;                       // of the spherical harmonics
    std::uint64_t inputBytes = 0;         // of the file
    std::uint64_t splats = 0;             // of the dataset; without a scan all that the header states
    std::optional<std::uint64_t> dropped; // splats
    std::optional<std::uint64_t> leftOut; // splats
    // Exact with a scan. Without one an upper bound; nothing if the header states no bounds.
    std::optional<std::uint64_t> cells;
    bool areCellsExact = false;
    std::uint64_t outputBytes = 0;  // data, coefficients and index; an upper bound without a scan
    std::uint64_t memory = 0;       // peak of the process, in bytes; an upper bound if cells are not exact
    std::uint64_t scratchBytes = 0; // disk space needed beside the dataset during the conversion
    double seconds = 0.0;           // very roughly
};

// The number of cells to plan memory for if it is unknown: more than a square kilometre has.
inline constexpr std::uint64_t assumedCells = 1200;

// Bytes of canonical records that one processor converts in a second, for the rough time. One disk gives this
// rate. With input and output in memory, six times as much was measured.
inline constexpr double assumedBytesPerSecond = 150e6;

// Plans one tile. A tile that cannot be converted has the status and the line of that failure. `progress`
// gets the share of a scan that is done, 0 to 1. Throws a Failure (Interrupted) when an interrupt was noted.
TilePlan planTile(const std::string& input, const PlanWish& wish,
                  const std::function<void(double share)>& progress);

} // namespace Tavrin::SplatProgram
