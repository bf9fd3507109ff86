#include "program/tiles/report_summary.h"

#include "program/system/exit_status.h"
#include "program/system/platform.h"
#include "program/terminal/console.h"
#include "program/terminal/figures.h"
#include "program/tiles/report.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>

namespace Tavrin::SplatProgram {
namespace {

using Json = nlohmann::ordered_json;

std::optional<std::uint64_t> numberAt(const Json& json, const char* key) {
    const auto found = json.find(key);
    return found != json.end() && found->is_number_unsigned() ? std::optional(found->get<std::uint64_t>())
                                                              : std::nullopt;
}

// An object's member, or an empty object.
Json objectAt(const Json& json, const char* key) {
    const auto found = json.find(key);
    return found != json.end() && found->is_object() ? *found : Json::object();
}

struct Totals {
    std::uint64_t done = 0;
    std::uint64_t skipped = 0;
    std::map<std::string, std::uint64_t> failed; // by status
    std::uint64_t failedInAll = 0;
    std::uint64_t splats = 0; // of the tiles that are done
    std::uint64_t bytes = 0;
    double seconds = 0.0;
    const ReportedTile* slowest = nullptr;
    const ReportedTile* fullest = nullptr; // the tile with the most memory compared with its plan
};

double shareOfPlan(const ReportedTile& tile) {
    return tile.measuredMemory && tile.plannedMemory.value_or(0) > 0
               ? static_cast<double>(*tile.measuredMemory) / static_cast<double>(*tile.plannedMemory)
               : 0.0;
}

Totals totalsOf(const std::vector<ReportedTile>& tiles) {
    Totals totals;
    for (const ReportedTile& tile : tiles) {
        totals.done += tile.isDone() ? 1 : 0;
        totals.skipped += tile.isSkipped() ? 1 : 0;
        if (tile.hasFailed()) {
            ++totals.failed[tile.status];
            ++totals.failedInAll;
        } else {
            totals.splats += tile.written.value_or(0);
            totals.bytes += tile.bytes.value_or(0);
        }
        totals.seconds += tile.seconds;
        if (totals.slowest == nullptr || tile.seconds > totals.slowest->seconds) {
            totals.slowest = &tile;
        }
        const double least = totals.fullest == nullptr ? 0.0 : shareOfPlan(*totals.fullest);
        if (shareOfPlan(tile) > least) {
            totals.fullest = &tile;
        }
    }
    return totals;
}

std::string orDash(const std::optional<std::uint64_t>& number, std::string (*text)(std::uint64_t)) {
    return number ? text(*number) : "-";
}

std::string plainCount(std::uint64_t count) {
    return countText(count);
}

std::string failureText(const ReportedTile& tile) {
    const std::string why = tile.status == "running" ? "killed, or still running" : printable(tile.line);
    return fmt::format("{} ({}): {}: {}\n", tile.output, tile.report, tile.status, why);
}

std::string totalsText(const std::vector<ReportedTile>& tiles, const Totals& totals) {
    std::string text =
        fmt::format("{}: {} done, {} skipped, {} failed", countText(tiles.size(), "tile", "tiles"),
                    countText(totals.done), countText(totals.skipped), countText(totals.failedInAll));
    std::string reasons;
    for (const auto& [status, count] : totals.failed) {
        reasons += fmt::format("{}{} {}", reasons.empty() ? "" : ", ", countText(count), status);
    }
    text += reasons.empty() ? "\n" : fmt::format(" ({})\n", reasons);
    text += fmt::format("{}, {}, {} of work\n", countText(totals.splats, "splat", "splats"),
                        bytesText(totals.bytes), durationText(totals.seconds));
    if (totals.slowest != nullptr) {
        text +=
            fmt::format("slowest: {}, {}\n", totals.slowest->output, durationText(totals.slowest->seconds));
    }
    if (totals.fullest != nullptr) {
        text += fmt::format("most memory of its plan: {}, {} of {} ({:.0f} %)\n", totals.fullest->output,
                            bytesText(*totals.fullest->measuredMemory),
                            bytesText(*totals.fullest->plannedMemory), 100.0 * shareOfPlan(*totals.fullest));
    }
    return text;
}

} // namespace

ReportedTile readReport(const std::string& name) {
    const auto refuse = [&](const char* what) {
        throw Failure(ExitStatus::inputRefused, fmt::format("{}: {}", name, what));
    };
    const std::filesystem::path path = pathFromText(name);
    std::error_code error;
    if (std::filesystem::status(path, error).type() == std::filesystem::file_type::not_found) {
        refuse("does not exist: its run never began, or wrote its report elsewhere");
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        refuse("cannot be read: check the path and its permissions");
    }
    const Json json = Json::parse(file, nullptr, false);
    if (!json.is_object() || !json.contains("reportVersion") || !json.contains("status")) {
        refuse("is not a report: name files that convert --report has written");
    }
    if (json["reportVersion"] != reportVersion) {
        refuse("was written by another version of plyconvert: read it with that version");
    }
    ReportedTile tile;
    tile.report = name;
    try {
        tile.output = json.at("output").get<std::string>();
        tile.status = json.at("status").get<std::string>();
        tile.line = json.at("line").get<std::string>();
        tile.seconds = json.at("seconds").at("all").get<double>();
    } catch (const Json::exception&) {
        refuse("is damaged: its output, status, line or seconds are missing");
    }
    tile.written = numberAt(objectAt(json, "splats"), "written");
    tile.cells = numberAt(json, "cells");
    tile.bytes = numberAt(objectAt(json, "bytes"), "all");
    tile.plannedMemory = numberAt(objectAt(json, "memory"), "planned");
    tile.measuredMemory = numberAt(objectAt(json, "memory"), "measured");
    return tile;
}

std::string tilesText(const std::vector<ReportedTile>& tiles) {
    std::size_t widest = 4;
    for (const ReportedTile& tile : tiles) {
        widest = std::max(widest, printable(tile.output).size());
    }
    const auto row = [&](const std::string& output, const std::string& status, const std::string& splats,
                         const std::string& cells, const std::string& bytes, const std::string& time,
                         const std::string& memory, const std::string& planned) {
        return fmt::format("{:<{}}  {:<18} {:>13} {:>7} {:>10} {:>9} {:>10} {:>10}\n", output, widest, status,
                           splats, cells, bytes, time, memory, planned);
    };
    std::string text = row("tile", "status", "splats", "cells", "size", "time", "memory", "planned");
    for (const ReportedTile& tile : tiles) {
        text += row(printable(tile.output), tile.status, orDash(tile.written, plainCount),
                    orDash(tile.cells, plainCount), orDash(tile.bytes, bytesText), durationText(tile.seconds),
                    orDash(tile.measuredMemory, bytesText), orDash(tile.plannedMemory, bytesText));
    }
    for (const ReportedTile& tile : tiles) {
        text += tile.hasFailed() ? failureText(tile) : "";
    }
    return text + totalsText(tiles, totalsOf(tiles));
}

std::string tilesJson(const std::vector<ReportedTile>& tiles) {
    const auto orNull = [](const std::optional<std::uint64_t>& number) {
        return number ? Json(*number) : Json(nullptr);
    };
    const Totals totals = totalsOf(tiles);
    Json json;
    json["tiles"] = Json::array();
    for (const ReportedTile& tile : tiles) {
        json["tiles"].push_back(
            {{"report", tile.report},
             {"output", tile.output},
             {"status", tile.status},
             {"line", tile.line},
             {"written", orNull(tile.written)},
             {"cells", orNull(tile.cells)},
             {"bytes", orNull(tile.bytes)},
             {"seconds", tile.seconds},
             {"memory",
              {{"planned", orNull(tile.plannedMemory)}, {"measured", orNull(tile.measuredMemory)}}}});
    }
    json["done"] = totals.done;
    json["skipped"] = totals.skipped;
    json["failed"] = totals.failedInAll;
    json["failedByStatus"] = totals.failed;
    json["written"] = totals.splats;
    json["bytes"] = totals.bytes;
    json["seconds"] = totals.seconds;
    json["slowest"] = totals.slowest == nullptr ? Json(nullptr) : Json(totals.slowest->output);
    json["mostMemoryOfPlan"] = totals.fullest == nullptr ? Json(nullptr)
                                                         : Json{{"output", totals.fullest->output},
                                                                {"share", shareOfPlan(*totals.fullest)}};
    // Paths may contain bytes that are not UTF-8; they are replaced.
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

} // namespace Tavrin::SplatProgram
