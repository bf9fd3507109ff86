// What came of many tiles, from their reports.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// What a report says of one tile, as far as a summary tells of it.
struct ReportedTile {
    std::string report; // its name, as given
    std::string output;
    std::string status; // as in the report
    std::string line;
    std::optional<std::uint64_t> written; // splats
    std::optional<std::uint64_t> cells;
    std::optional<std::uint64_t> bytes;
    std::optional<std::uint64_t> plannedMemory;
    std::optional<std::uint64_t> measuredMemory;
    double seconds = 0.0;

    bool isDone() const { return status == "done" || status == "notTold"; }
    bool isSkipped() const { return status == "skipped"; }
    bool hasFailed() const { return !isDone() && !isSkipped(); }
};

// Throws a Failure (InputRefused) for a file that cannot be read or is no report of this version.
ReportedTile readReport(const std::string& name);

// A table, a line for each failed tile, and the totals; the last line is ended.
std::string tilesText(const std::vector<ReportedTile>& tiles);

// The same as one JSON object on one line.
std::string tilesJson(const std::vector<ReportedTile>& tiles);

} // namespace Tavrin::SplatProgram
