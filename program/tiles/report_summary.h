// Sums up the reports of many tiles.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// The part of a tile's report that the summary uses.
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

// Throws a Failure (InputRefused) for a file that cannot be read or is not a report of this version.
ReportedTile readReport(const std::string& name);

// The table of tiles, a line for each failed tile, and the totals. Ends with a line feed.
std::string tilesText(const std::vector<ReportedTile>& tiles);

// The same as one JSON object on one line.
std::string tilesJson(const std::vector<ReportedTile>& tiles);

} // namespace Tavrin::SplatProgram
