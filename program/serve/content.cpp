#include "program/serve/content.h"

#include "program/serve/page.h"
#include "program/system/exit_status.h"
#include "reader/format.h"
#include "reader/verify.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <zlib.h>

#include <array>
#include <system_error>
#include <utility>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

constexpr std::array datasetFiles = {SplatReader::Format::metaFile, SplatReader::Format::dataFile,
                                     SplatReader::Format::coefficientFile, SplatReader::Format::indexFile};

std::string tagOfBytes(std::string_view bytes) {
    const auto sum = crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size());
    return fmt::format("\"{:x}-{:x}\"", bytes.size(), sum);
}

std::string tagOfFile(const StampedFile::Stamp& stamp) {
    return fmt::format("\"{:x}-{:x}-{:x}-{:x}\"", stamp.identity.device, stamp.identity.number, stamp.size,
                       stamp.time);
}

// The last component of a folder's resolved path; `folder` itself if there is none.
std::string nameOf(const std::string& folder) {
    std::error_code error;
    const fs::path path = resolvedPath(pathFromText(folder), error);
    const std::string name =
        textFromPath(path.has_filename() ? path.filename() : path.parent_path().filename());
    return error || name.empty() ? folder : name;
}

std::string listOf(const std::vector<ServedDataset>& datasets) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const ServedDataset& dataset : datasets) {
        nlohmann::ordered_json entry;
        entry["name"] = dataset.name;
        entry["base"] = fmt::format("data/{}/", list.size());
        if (!dataset.map.empty()) {
            entry["map"] = dataset.map;
        }
        if (dataset.box) {
            entry["box"] = *dataset.box;
        }
        list.push_back(std::move(entry));
    }
    return list.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

// Opens a file of a dataset; nothing if it does not exist.
std::optional<StampedFile> openFile(const fs::path& path) {
    std::error_code error;
    std::optional<StampedFile> file = StampedFile::open(path, error);
    if (!file && error != std::errc::no_such_file_or_directory && error != std::errc::not_a_directory) {
        const bool tooMany =
            error == std::errc::too_many_files_open || error == std::errc::too_many_files_open_in_system;
        const char* const advice = tooMany ? ": raise the limit (ulimit -Hn), or name fewer datasets" : "";
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: cannot be opened: {}{}", textFromPath(path), error.message(), advice));
    }
    return file;
}

// Returns the EPSG code of a dataset. Throws a Failure with the first finding of the quick verification.
std::int32_t requireSoundDataset(const std::string& folder) {
    const SplatReader::VerifyReport report = SplatReader::verifyDataset(pathFromText(folder));
    if (!report.sound() || !report.meta) {
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: not a sound dataset: {} (plyconvert verify shows all of it)", folder,
                                  report.findings.errors().front().text()));
    }
    return report.meta->epsg;
}

} // namespace

// The files are opened, then verified by name, and then the names must still lead to the opened files, since
// another dataset may replace the folder at any moment.
ServedDataset ServedDataset::open(const std::string& folder) {
    std::array<std::optional<StampedFile>, datasetFiles.size()> files;
    for (std::size_t i = 0; i < files.size(); ++i) {
        files[i] = openFile(pathFromText(folder) / datasetFiles[i]);
    }
    ServedDataset dataset;
    dataset.folder = folder;
    dataset.name = nameOf(folder);
    dataset.epsg = requireSoundDataset(folder);
    for (std::size_t i = 0; i < files.size(); ++i) {
        const std::optional<FileIdentity> named = identityOf(pathFromText(folder) / datasetFiles[i]);
        const bool isSame =
            files[i] ? named == files[i]->stamp().identity && files[i]->isUnchanged() : !named;
        if (!isSame) {
            throw Failure(
                ExitStatus::inputRefused,
                fmt::format("{}: {} was replaced while it was checked: try again", folder, datasetFiles[i]));
        }
        if (files[i]) {
            dataset.files.emplace_back(datasetFiles[i], std::move(*files[i]));
        }
    }
    return dataset;
}

Content Content::ofDatasets(std::vector<ServedDataset> datasets) {
    Content content;
    content.addText("/", "the page", "text/html; charset=utf-8", pageText(), pageGzip());
    content.addText("/datasets.json", "the list of datasets", "application/json", listOf(datasets));
    for (std::size_t i = 0; i < datasets.size(); ++i) {
        content.addDataset(std::move(datasets[i]), fmt::format("/data/{}/", i));
    }
    return content;
}

const Resource* Content::find(std::string_view path) const {
    const auto found = resources_.find(path);
    return found == resources_.end() ? nullptr : &found->second;
}

void Content::addText(const std::string& path, std::string name, std::string type, std::string bytes,
                      std::string gzip) {
    std::string tag = tagOfBytes(bytes);
    resources_.emplace(path, Resource{std::move(name), std::move(type), std::move(tag), std::move(bytes),
                                      std::move(gzip), std::nullopt});
}

void Content::addDataset(ServedDataset dataset, const std::string& base) {
    for (auto& [name, file] : dataset.files) {
        std::string tag = tagOfFile(file.stamp());
        resources_.emplace(base + name, Resource{fmt::format("{} of {}", name, dataset.folder),
                                                 "application/octet-stream",
                                                 std::move(tag),
                                                 {},
                                                 {},
                                                 std::move(file)});
    }
}

} // namespace Tavrin::SplatProgram
