#include "program/commands/catalogue_command.h"

#include "program/system/interrupt.h"
#include "program/system/partial_file.h"
#include "program/system/platform.h"
#include "program/system/processors.h"
#include "program/terminal/console.h"
#include "program/terminal/figures.h"
#include "program/terminal/progress.h"
#include "program/tiles/catalogue.h"
#include "program/tiles/names.h"
#include "program/tiles/overlap.h"
#include "program/tiles/projection.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

struct CatalogueOptions {
    std::vector<std::string> words; // the datasets' folders, then the file to write
    std::string base;               // empty: relative references
    std::string datetime;           // as given; empty: that of each dataset
    bool force = false;
    bool quiet = false;

    std::vector<std::string> datasets() const { return {words.begin(), words.end() - 1}; }
    const std::string& file() const { return words.back(); }
};

// Warnings, one line each; none with --quiet.
class Remarks {
public:
    explicit Remarks(bool quiet, Progress& progress) : quiet_(quiet), progress_(progress) {}

    void warn(const std::string& line) {
        if (!quiet_) {
            progress_.clear();
            reportWarning(line);
        }
    }

private:
    bool quiet_;
    Progress& progress_;
};

std::string checkDatetime(const std::string& word) {
    return timeFrom(word) ? ""
                          : fmt::format("{} is not a date and time in UTC: write it like 2024-05-01 or "
                                        "2024-05-01T12:30:00Z",
                                        word);
}

// The folders as absolute paths. Each may be given once.
std::vector<fs::path> foldersOf(const std::vector<std::string>& datasets) {
    std::vector<fs::path> folders;
    std::map<std::pair<std::uint64_t, std::uint64_t>, std::string> seen;
    for (const std::string& dataset : datasets) {
        requireWord(dataset, "DATASET", "a folder");
        folders.push_back(tileFolder(dataset));
        const auto identity = identityOf(folders.back()).value_or(FileIdentity{});
        const auto [earlier, isNew] = seen.insert({{identity.device, identity.number}, dataset});
        if (!isNew) {
            throw Failure(
                ExitStatus::inputRefused,
                fmt::format("{}: the same folder as {}: give each dataset once", dataset, earlier->second));
        }
    }
    return folders;
}

CataloguePlace placeOf(const CatalogueOptions& options) {
    std::error_code error;
    const fs::path folder = fs::absolute(pathFromText(options.file()), error).parent_path();
    const fs::path resolved = error ? folder : resolvedPath(folder, error);
    return {error ? folder : resolved, options.base};
}

// Footprints of tiles. Keeps the projection of each EPSG code, since a city has few.
class Footprints {
public:
    // Nothing when the tile has no place on the globe; `whyNot` then holds the reason.
    std::optional<Footprint> of(const Tile& tile, std::string& whyNot) {
        if (tile.meta.epsg <= 0) {
            whyNot = "it states no EPSG code (convert --epsg states one)";
            return std::nullopt;
        }
        auto known = projections_.find(tile.meta.epsg);
        if (known == projections_.end()) {
            Entry entry;
            entry.projection = Projection::ofCode(tile.meta.epsg, entry.whyNot);
            known = projections_.emplace(tile.meta.epsg, std::move(entry)).first;
        }
        const auto& projection = known->second.projection;
        if (!projection) {
            whyNot = known->second.whyNot;
            return std::nullopt;
        }
        auto footprint = footprintOf(tile.ground(), [&](double x, double y) { return projection->at(x, y); });
        if (!footprint) {
            whyNot = fmt::format("its box reaches beyond the coordinates of EPSG {}", tile.meta.epsg);
        }
        return footprint;
    }

private:
    struct Entry {
        std::optional<Projection> projection;
        std::string whyNot;
    };
    std::map<std::int32_t, Entry> projections_;
};

// The picture beside a tile, if it shows the ground that the tile covers.
std::optional<Overview> overviewOf(const Tile& tile, Remarks& remarks) {
    std::string remark;
    auto overview = overviewBeside(tile.folder, remark);
    if (overview && overview->epsg != 0 && overview->epsg != tile.meta.epsg) {
        remark = fmt::format("{}: it states EPSG {}, and the dataset {}", textFromPath(overview->file),
                             overview->epsg, tile.meta.epsg);
    } else if (overview) {
        const Rectangle picture = overview->box();
        const Rectangle ground = tile.ground();
        if (picture.minX > ground.maxX || picture.maxX < ground.minX || picture.minY > ground.maxY ||
            picture.maxY < ground.minY) {
            remark =
                fmt::format("{}: it does not show the place of the dataset", textFromPath(overview->file));
        }
    }
    if (remark.empty()) {
        return overview;
    }
    remarks.warn(remark + ": the catalogue has no picture of this tile");
    return std::nullopt;
}

CatalogueItem itemOf(Tile tile, std::string id, const CatalogueOptions& options, Footprints& footprints,
                     Remarks& remarks) {
    CatalogueItem item{std::move(tile), std::move(id), {}, {}, {}};
    if (item.tile.unplaced > 0) {
        remarks.warn(fmt::format("{}: {} no finite position: not counted in its box", item.tile.name,
                                 countText(item.tile.unplaced, "splat has", "splats have")));
    }
    std::string whyNot;
    item.footprint = footprints.of(item.tile, whyNot);
    if (!item.footprint) {
        remarks.warn(fmt::format("{}: no place on the map: {}; its box is given in its own coordinates",
                                 item.tile.name, whyNot));
    }
    item.overview = overviewOf(item.tile, remarks);
    item.datetime = options.datetime.empty() ? timeText(item.tile.made) : *timeFrom(options.datetime);
    return item;
}

void nameOverlaps(const std::vector<CatalogueItem>& items, Remarks& remarks) {
    constexpr double leastShare = 0.01;
    constexpr std::size_t mostNamed = 20;
    std::vector<Ground> grounds;
    grounds.reserve(items.size());
    for (const CatalogueItem& item : items) {
        grounds.push_back(
            {item.tile.meta.epsg, item.tile.ground(), item.footprint ? &*item.footprint : nullptr});
    }
    const std::vector<Overlap> overlaps = overlapsOf(grounds, leastShare);
    for (std::size_t i = 0; i < std::min(overlaps.size(), mostNamed); ++i) {
        const Overlap& overlap = overlaps[i];
        remarks.warn(fmt::format("{} and {} overlap by {:.1f} % of the smaller one's area",
                                 items[overlap.first].tile.name, items[overlap.second].tile.name,
                                 100.0 * overlap.share));
    }
    if (overlaps.size() > mostNamed) {
        remarks.warn(fmt::format("and {} more overlap",
                                 countText(overlaps.size() - mostNamed, "pair of tiles", "pairs of tiles")));
    }
}

void printSummary(const CatalogueOptions& options, const std::vector<CatalogueItem>& items) {
    std::set<std::int32_t> codes;
    std::uint64_t splats = 0;
    std::uint64_t placed = 0;
    for (const CatalogueItem& item : items) {
        splats += item.tile.splats;
        if (item.footprint) {
            codes.insert(item.tile.meta.epsg);
            ++placed;
        }
    }
    fmt::print("{}: {} with {}; {} on the map, in {}\n", options.file(),
               countText(items.size(), "tile", "tiles"), countText(splats, "splat", "splats"),
               countText(placed), countText(codes.size(), "EPSG code", "EPSG codes"));
}

ExitStatus runCatalogue(const CatalogueOptions& options) {
    requireWord(options.file(), "CITY.json", "a file");
    requireProjections();
    const std::vector<fs::path> folders = foldersOf(options.datasets());
    checkOutputFile(options.file(), options.force, options.datasets(), "catalogue");
    catchInterrupts("what was written is removed");
    Progress progress(!options.quiet && standardErrorIsTerminal());
    Tiles tiles = readTiles(options.datasets(), usableProcessors(), [&](double share) {
        throwIfInterrupted();
        progress.update("reading positions", share);
    });
    progress.clear();
    throwIfInterrupted();
    for (const RefusedTile& refused : tiles.refused) {
        reportError(fmt::format("{}: left out: {} (plyconvert verify shows all of it)", refused.name,
                                refused.reason));
    }
    if (tiles.good.empty()) {
        throw Failure(ExitStatus::verificationFailed,
                      fmt::format("{}: no tile is left, so nothing was written", options.file()));
    }
    // Ids are made from all folders given, sound or not, so that they stay the same when a broken tile is
    // repaired.
    const std::vector<std::string> ids = idsOf(folders);
    Remarks remarks(options.quiet, progress);
    Footprints footprints;
    std::vector<CatalogueItem> items;
    for (Tile& tile : tiles.good) {
        const auto place =
            static_cast<std::size_t>(std::ranges::find(folders, tile.folder) - folders.begin());
        items.push_back(itemOf(std::move(tile), ids.at(place), options, footprints, remarks));
    }
    nameOverlaps(items, remarks);
    const std::string text = catalogueText(items, placeOf(options));
    throwIfInterrupted();
    writeWholeFile(pathFromText(options.file()), text);
    if (!options.quiet) {
        printSummary(options, items);
    }
    return tiles.refused.empty() ? ExitStatus::done : ExitStatus::verificationFailed;
}

} // namespace

void addCatalogueCommand(CLI::App& program, Action& chosen) {
    CLI::App* command = program.add_subcommand("catalogue", catalogueSummary);
    command->footer(helpEnd({"plyconvert catalogue tiles/*/ city.json"}));
    auto options = std::make_shared<CatalogueOptions>();
    command
        ->add_option("DATASET", options->words,
                     "the datasets' folders, and last CITY.json, the file to write")
        ->required()
        ->expected(2, 1 << 20);
    command->add_option("--base", options->base, "address of the catalogue's folder, for absolute references")
        ->type_name("URL")
        ->check([](const std::string& word) { return checkBase(word); });
    command
        ->add_option("--datetime", options->datetime,
                     "when the tiles were captured, in UTC (default: when made)")
        ->type_name("TIME")
        ->check(checkDatetime);
    addFileFlags(*command, options->force, options->quiet);
    command->callback([options, &chosen] { chosen = [options] { return runCatalogue(*options); }; });
}

} // namespace Tavrin::SplatProgram
