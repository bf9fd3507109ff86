#include "program/commands/viewed_datasets.h"

#include "program/commands/command.h"
#include "program/system/exit_status.h"
#include "program/system/platform.h"
#include "program/tiles/catalogue_reader.h"

#include <fmt/format.h>

#include <cstddef>
#include <map>
#include <string>
#include <system_error>
#include <utility>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

// Number of datasets by EPSG code.
using Codes = std::map<std::int32_t, std::size_t>;

// A dataset as the command line or a catalogue names it.
struct NamedDataset {
    std::string folder;
    std::optional<ListedTile> tile; // of a catalogue
};

std::vector<NamedDataset> namedBy(const std::vector<std::string>& words) {
    std::vector<NamedDataset> named;
    for (const std::string& word : words) {
        requireWord(word, "OUT", "a folder or a catalogue");
        std::error_code error;
        if (!fs::is_regular_file(pathFromText(word), error)) {
            named.push_back({word, std::nullopt});
            continue;
        }
        for (ListedTile& tile : tilesOfCatalogue(pathFromText(word))) {
            std::string folder = textFromPath(tile.folder);
            named.push_back({std::move(folder), std::move(tile)});
        }
    }
    return named;
}

// The files of the datasets stay open while the server needs some for its connections.
void requireOpenFiles(std::size_t datasets, std::uint64_t openFiles) {
    constexpr std::uint64_t each = 4;
    constexpr std::uint64_t others = 32; // streams, sockets, a browser's six connections
    const std::uint64_t needed = each * datasets + others;
    if (needed > openFiles) {
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{} datasets need {} open files at a time, and this process may have {}: "
                                  "raise the hard limit (ulimit -Hn), or name fewer datasets",
                                  datasets, needed, openFiles));
    }
}

std::vector<ServedDataset> opened(const std::vector<NamedDataset>& named) {
    std::vector<ServedDataset> datasets;
    for (const auto& [folder, tile] : named) {
        requireFolder(folder);
        datasets.push_back(ServedDataset::open(folder));
        if (tile) {
            datasets.back().name = tile->id;
            datasets.back().box = tile->box;
        }
    }
    return datasets;
}

std::string codeText(std::int32_t code) {
    return code == 0 ? "no EPSG code" : fmt::format("EPSG {}", code);
}

std::string listOf(const Codes& codes) {
    std::string text;
    for (const auto& [code, count] : codes) {
        text += fmt::format("{}{} of {}", text.empty() ? "" : ", ", count, codeText(code));
    }
    return text;
}

// The page opens with the map that has the most datasets; if several have, with the first of them.
std::string remarkOf(const std::vector<std::int32_t>& codes, Codes others) {
    std::int32_t shown = 0;
    std::size_t most = 1;
    for (const std::int32_t code : codes) {
        if (code != 0 && others[code] > most) {
            most = others[code];
            shown = code;
        }
    }
    if (most == 1 || others.size() == 1) {
        return {};
    }
    others.erase(shown);
    return fmt::format(
        "the map shows the {} datasets of {}; the others ({}) can be chosen in the page, or with "
        "--epsg",
        most, codeText(shown), listOf(others));
}

} // namespace

ViewedDatasets datasetsToView(const std::vector<std::string>& words, std::optional<std::int32_t> epsg,
                              std::uint64_t openFiles) {
    const std::vector<NamedDataset> named = namedBy(words);
    requireOpenFiles(named.size(), openFiles);
    ViewedDatasets viewed;
    std::vector<std::int32_t> codes;
    Codes counts;
    for (ServedDataset& dataset : opened(named)) {
        const std::int32_t code = dataset.epsg;
        ++counts[code];
        if (epsg && *epsg != code) {
            continue;
        }
        // Datasets without a code share no coordinates unless the user says so with --epsg 0.
        dataset.map = code != 0 || epsg ? codeText(code) : "";
        codes.push_back(code);
        viewed.datasets.push_back(std::move(dataset));
    }
    if (viewed.datasets.empty()) {
        throw Failure(
            ExitStatus::inputRefused,
            fmt::format("--epsg {}: no dataset has this code; there are {}", *epsg, listOf(counts)));
    }
    if (!epsg) {
        viewed.remark = remarkOf(codes, counts);
    }
    return viewed;
}

} // namespace Tavrin::SplatProgram
