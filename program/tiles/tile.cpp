#include "program/tiles/tile.h"

#include "program/system/exit_status.h"
#include "program/system/platform.h"
#include "reader/dataset.h"
#include "threads/crew.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <system_error>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;
namespace Format = SplatReader::Format;
using SplatThreads::Crew;

// A dataset while it is read.
struct Candidate {
    std::optional<Tile> tile;
    std::string reason; // why it is left out; empty if it is not
};

// Consecutive records of one dataset, the unit of work of a thread.
struct Part {
    std::size_t candidate = 0;
    std::uint64_t first = 0;
    std::uint64_t count = 0;
    SplatReader::Point min{};
    SplatReader::Point max{};
    std::uint64_t unplaced = 0;
    std::string fault; // of the file
};

Candidate verified(const std::string& name) {
    Candidate candidate;
    try {
        const fs::path folder = tileFolder(name);
        const SplatReader::VerifyReport report = SplatReader::verifyDataset(folder);
        if (!report.sound()) {
            candidate.reason = report.findings.errors().front().text();
            return candidate;
        }
        if (report.splatsHeld == 0) {
            candidate.reason = "it holds no splats";
            return candidate;
        }
        Tile tile;
        tile.name = name;
        tile.folder = folder;
        tile.meta = *report.meta;
        tile.splats = report.splatsHeld;
        tile.cells = report.cells;
        tile.metaBytes = report.metaBytes;
        tile.indexBytes = report.indexBytes;
        tile.dataBytes = report.dataBytes;
        tile.coefficientBytes = report.coefficientBytes;
        tile.made = std::chrono::floor<std::chrono::seconds>(
            std::chrono::file_clock::to_sys(fs::last_write_time(folder / Format::metaFile)));
        candidate.tile = std::move(tile);
    } catch (const SplatReader::DatasetError& error) {
        candidate.reason = error.what();
    } catch (const fs::filesystem_error& error) {
        candidate.reason = error.code().message();
    }
    return candidate;
}

std::vector<Part> partsOf(const std::vector<Candidate>& candidates) {
    constexpr std::uint64_t partRecords = std::uint64_t{1} << 20; // 32 MiB
    std::vector<Part> parts;
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        const std::uint64_t records = candidates[i].tile ? candidates[i].tile->splats : 0;
        for (std::uint64_t first = 0; first < records; first += partRecords) {
            Part& part = parts.emplace_back();
            part.candidate = i;
            part.first = first;
            part.count = std::min(partRecords, records - first);
        }
    }
    return parts;
}

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr SplatReader::Point above = {infinity, infinity, infinity};
constexpr SplatReader::Point below = {-infinity, -infinity, -infinity};

void widen(SplatReader::Point& min, SplatReader::Point& max, const SplatReader::Point& low,
           const SplatReader::Point& high) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        min[axis] = std::min(min[axis], low[axis]);
        max[axis] = std::max(max[axis], high[axis]);
    }
}

void readPart(const Tile& tile, Part& part) {
    part.min = above;
    part.max = below;
    try {
        SplatReader::RecordCursor cursor(tile.folder, part.first, part.count, 0);
        SplatReader::RecordCursor::View view{};
        while (cursor.next(view)) {
            SplatReader::Point position{};
            for (std::size_t axis = 0; axis < 3; ++axis) {
                position[axis] = SplatReader::loadFloat(view.data + Format::positionOffset + 4 * axis);
            }
            if (std::ranges::all_of(position, [](double value) { return std::isfinite(value); })) {
                widen(part.min, part.max, position, position);
            } else {
                ++part.unplaced;
            }
        }
    } catch (const SplatReader::DatasetError& error) { // the dataset changed since it was verified
        part.fault = error.what();
    }
}

// Merges the boxes of the parts and moves them to world coordinates.
void finish(std::vector<Candidate>& candidates, const std::vector<Part>& parts) {
    for (Candidate& candidate : candidates) {
        if (candidate.tile) {
            candidate.tile->min = above;
            candidate.tile->max = below;
        }
    }
    for (const Part& part : parts) {
        Candidate& candidate = candidates[part.candidate];
        widen(candidate.tile->min, candidate.tile->max, part.min, part.max);
        candidate.tile->unplaced += part.unplaced;
        candidate.reason = candidate.reason.empty() ? part.fault : candidate.reason;
    }
    for (Candidate& candidate : candidates) {
        if (!candidate.tile || !candidate.reason.empty()) {
            continue;
        }
        Tile& tile = *candidate.tile;
        if (tile.unplaced == tile.splats) {
            candidate.reason = "none of its splats has a finite position";
        }
        for (std::size_t axis = 0; axis < 3; ++axis) {
            tile.min[axis] += tile.meta.offset[axis];
            tile.max[axis] += tile.meta.offset[axis];
            if (candidate.reason.empty() &&
                !(std::isfinite(tile.min[axis]) && std::isfinite(tile.max[axis]))) {
                candidate.reason = "its offset is not finite";
            }
        }
    }
}

} // namespace

fs::path tileFolder(const std::string& name) {
    std::error_code error;
    fs::path path = fs::absolute(pathFromText(name), error);
    if (!error && !fs::is_directory(path, error)) {
        error = std::make_error_code(std::errc::not_a_directory);
    }
    if (!path.has_filename()) { // it ends in a slash
        path = path.parent_path();
    }
    // A link as the last component is kept, since the user named the dataset by it.
    const bool hasName = path.has_filename() && path.filename() != "." && path.filename() != "..";
    const fs::path parent = error ? fs::path() : resolvedPath(hasName ? path.parent_path() : path, error);
    if (error) {
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: no such folder: give the folder of a dataset", name));
    }
    return hasName ? parent / path.filename() : parent;
}

Tiles readTiles(const std::vector<std::string>& names, unsigned threads,
                const std::function<void(double share)>& progress) {
    std::vector<Candidate> candidates(names.size());
    Crew verifiers([&](std::uint64_t) { progress(0.0); });
    verifiers.share(threads, names.size(), [&](unsigned, std::uint64_t i) {
        candidates[i] = verified(names[i]);
        verifiers.advance(1);
    });
    std::vector<Part> parts = partsOf(candidates);
    std::uint64_t all = 0;
    for (const Part& part : parts) {
        all += part.count;
    }
    Crew readers([&](std::uint64_t done) { progress(static_cast<double>(done) / static_cast<double>(all)); });
    readers.share(threads, parts.size(), [&](unsigned, std::uint64_t i) {
        readPart(*candidates[parts[i].candidate].tile, parts[i]);
        readers.advance(parts[i].count);
    });
    finish(candidates, parts);
    Tiles tiles;
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        if (candidates[i].reason.empty()) {
            tiles.good.push_back(std::move(*candidates[i].tile));
        } else {
            tiles.refused.push_back({names[i], candidates[i].reason});
        }
    }
    return tiles;
}

} // namespace Tavrin::SplatProgram
