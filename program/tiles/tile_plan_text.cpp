#include "program/tiles/tile_plan_text.h"

#include "plyconvert.h"
#include "program/terminal/console.h"
#include "program/terminal/figures.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cmath>

namespace Tavrin::SplatProgram {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;

struct Totals {
    std::uint64_t known = 0;
    std::uint64_t splats = 0;
    std::uint64_t outputBytes = 0;
    std::uint64_t mostScratch = 0;     // of one tile
    double seconds = 0.0;              // of all tiles, one after the other
    double mostSeconds = 0.0;          // of one tile
    const TilePlan* largest = nullptr; // takes the most memory
    bool isGuessed = false;            // some header states no bounds, so its cells are assumed
};

Totals totalsOf(const std::vector<TilePlan>& tiles) {
    Totals totals;
    for (const TilePlan& tile : tiles) {
        if (!tile.isKnown) {
            continue;
        }
        ++totals.known;
        totals.splats += tile.splats;
        totals.outputBytes += tile.outputBytes;
        totals.mostScratch = std::max(totals.mostScratch, tile.scratchBytes);
        totals.seconds += tile.seconds;
        totals.mostSeconds = std::max(totals.mostSeconds, tile.seconds);
        if (totals.largest == nullptr || tile.memory > totals.largest->memory) {
            totals.largest = &tile;
        }
        totals.isGuessed = totals.isGuessed || !tile.cells;
    }
    return totals;
}

// The end of a name, in at most `room` characters of UTF-8. It tells tiles apart better than the start.
std::string endOf(const std::string& name, std::size_t room) {
    constexpr std::string_view dots = "...";
    std::string shown = printable(name);
    const auto starts = [](char c) { return (static_cast<unsigned char>(c) & 0xC0u) != 0x80u; };
    const auto characters = static_cast<std::size_t>(std::ranges::count_if(shown, starts));
    if (characters <= room) {
        return shown;
    }
    std::size_t surplus = characters - room + dots.size();
    std::size_t at = 0;
    for (; surplus > 0 || !starts(shown[at]); ++at) {
        surplus -= starts(shown[at]) ? 1 : 0;
    }
    return std::string(dots) + shown.substr(at);
}

std::string cellsText(const TilePlan& tile) {
    return !tile.cells ? "?" : tile.areCellsExact ? countText(*tile.cells) : "<=" + countText(*tile.cells);
}

// The columns after the name.
std::string figuresText(const std::array<std::string, 6>& words) {
    return fmt::format(" {:>11} {:>8} {:>9} {:>9} {:>9} {:>9}\n", words[0], words[1], words[2], words[3],
                       words[4], words[5]);
}

std::string rowText(const TilePlan& tile) {
    if (!tile.isKnown) {
        return figuresText({"-", "-", "-", "-", "-", "-"});
    }
    return figuresText({countText(tile.splats), cellsText(tile), bytesText(tile.outputBytes),
                        bytesText(tile.memory), tile.scratchBytes > 0 ? bytesText(tile.scratchBytes) : "-",
                        durationText(tile.seconds)});
}

std::string scratchText(const Totals& totals) {
    return totals.mostScratch > 0 ? bytesText(totals.mostScratch) + " of scratch" : "no scratch";
}

std::string totalsText(const std::vector<TilePlan>& tiles, const Totals& totals, const PlanWish& wish) {
    std::string text = countText(tiles.size(), "tile", "tiles");
    if (const std::uint64_t bad = tiles.size() - totals.known; bad > 0) {
        text += fmt::format(", {} of them without a plan", countText(bad));
    }
    text += fmt::format(": {}, {} of output\n", countText(totals.splats, "splat", "splats"),
                        bytesText(totals.outputBytes));
    if (totals.largest == nullptr) {
        return text;
    }
    text += fmt::format("at a time: up to {} of memory, {}\n", bytesText(totals.largest->memory),
                        scratchText(totals));
    text += fmt::format("roughly {} one after the other, on {}\n", durationText(totals.seconds),
                        countText(wish.threads, "processor", "processors"));
    if (totals.isGuessed) {
        text += fmt::format("?  no bounds in the header: memory for up to {} cells; --scan counts them\n",
                            countText(assumedCells));
    }
    return text;
}

// A comment line of the job script. A line feed in a name does not end it.
std::string comment(const std::string& text) {
    return "# " + printable(text) + "\n";
}

std::string slurmTime(std::uint64_t minutes) {
    constexpr std::uint64_t hour = 60;
    constexpr std::uint64_t day = 24 * hour;
    const std::string clock = fmt::format("{:02}:{:02}:00", minutes % day / hour, minutes % hour);
    return minutes < day ? clock : fmt::format("{}-{}", minutes / day, clock);
}

Json orNull(const std::optional<std::uint64_t>& number) {
    return number ? Json(*number) : Json(nullptr);
}

Json tileJson(const TilePlan& tile) {
    Json json = {{"input", tile.input}, {"status", nameOf(tile.status)}, {"line", tile.line}};
    const auto add = [&](const char* key, const Json& value) {
        json[key] = tile.isKnown ? value : Json(nullptr);
    };
    add("kind", tile.kind);
    add("degree", tile.degree);
    add("inputBytes", tile.inputBytes);
    add("splats", tile.splats);
    add("dropped", orNull(tile.dropped));
    add("leftOut", orNull(tile.leftOut));
    add("cells", tile.areCellsExact ? orNull(tile.cells) : Json(nullptr));
    add("cellsAtMost", orNull(tile.cells));
    add("outputBytes", tile.outputBytes);
    add("memoryBytes", tile.memory);
    add("scratchBytes", tile.scratchBytes);
    add("seconds", tile.seconds);
    return json;
}

} // namespace

std::string plansText(const std::vector<TilePlan>& tiles, const PlanWish& wish, std::size_t columns) {
    const std::string head = figuresText({"splats", "cells", "output", "memory", "scratch", "time"});
    const std::size_t room = std::max<std::size_t>(columns, 80) - (head.size() - 1); // without the line feed
    std::size_t widest = 4;
    for (const TilePlan& tile : tiles) {
        widest = std::max(widest, printable(tile.input).size());
    }
    widest = std::min(widest, room);
    std::string text = fmt::format("{:<{}}", "tile", widest) + head;
    for (const TilePlan& tile : tiles) {
        text += fmt::format("{:<{}}", endOf(tile.input, widest), widest) + rowText(tile);
    }
    return text + totalsText(tiles, totalsOf(tiles), wish);
}

std::string plansJson(const std::vector<TilePlan>& tiles, const PlanWish& wish) {
    const Totals totals = totalsOf(tiles);
    Json json;
    json["planVersion"] = planVersion;
    json["program"] =
        fmt::format("{}.{}.{}", PLYCONVERT_VERSION_MAJOR, PLYCONVERT_VERSION_MINOR, PLYCONVERT_VERSION_PATCH);
    json["scanned"] = wish.isScanned;
    json["threads"] = wish.threads;
    json["maxMemory"] = wish.maxMemory > 0 ? Json(wish.maxMemory) : Json(nullptr);
    json["assumed"] = {{"cells", assumedCells}, {"bytesPerSecond", assumedBytesPerSecond}};
    json["tiles"] = Json::array();
    for (const TilePlan& tile : tiles) {
        json["tiles"].push_back(tileJson(tile));
    }
    json["planned"] = totals.known;
    json["splats"] = totals.splats;
    json["outputBytes"] = totals.outputBytes;
    json["mostMemoryBytes"] = totals.largest == nullptr ? Json(nullptr) : Json(totals.largest->memory);
    json["mostScratchBytes"] = totals.mostScratch;
    json["mostSeconds"] = totals.mostSeconds;
    json["seconds"] = totals.seconds;
    // Paths may contain bytes that are not UTF-8; they are replaced.
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string plansSlurm(const std::vector<TilePlan>& tiles, const PlanWish& wish) {
    constexpr std::uint64_t scriptBytes = 16 * mebibyte; // of the job script's shell and its tools
    constexpr double margin = 3.0;                       // of the rough time
    constexpr std::uint64_t leastMinutes = 10;
    const Totals totals = totalsOf(tiles);
    const std::uint64_t memory = (totals.largest->memory + scriptBytes + mebibyte - 1) / mebibyte;
    const auto minutes = static_cast<std::uint64_t>(std::ceil(margin * totals.mostSeconds / 60.0));
    std::string text =
        fmt::format("#SBATCH --array=0-{}\n#SBATCH --ntasks=1\n#SBATCH --cpus-per-task={}\n"
                    "#SBATCH --mem={}M\n#SBATCH --time={}\n",
                    tiles.size() - 1, wish.threads, memory, slurmTime(std::max(minutes, leastMinutes)));
    text += comment(fmt::format("{}: task 0 converts the first scene named to the plan",
                                countText(tiles.size(), "tile", "tiles")));
    text += comment(fmt::format("mem: {} at most, of {}, and {} for the script",
                                bytesText(totals.largest->memory), totals.largest->input,
                                bytesText(scriptBytes)));
    if (totals.isGuessed) {
        text += comment(fmt::format("mem: some headers state no bounds, {} cells are assumed; --scan counts",
                                    countText(assumedCells)));
    }
    text += comment(fmt::format("time: {:g} times a rough {}, at least {} minutes", margin,
                                durationText(totals.mostSeconds), leastMinutes));
    text += comment(fmt::format("time: {:g} MB/s a processor are assumed", assumedBytesPerSecond / 1e6));
    text += comment(fmt::format("disk: {} for all datasets; {} a task", bytesText(totals.outputBytes),
                                scratchText(totals)));
    for (std::size_t i = 0; i < tiles.size(); ++i) {
        if (!tiles[i].line.empty()) {
            text += comment(fmt::format("task {} will end with {}: {}", i, static_cast<int>(tiles[i].status),
                                        tiles[i].line));
        }
    }
    return text;
}

} // namespace Tavrin::SplatProgram
