#include "program/convert/dataset_folder.h"

#include "program/system/interrupt.h"
#include "program/system/platform.h"
#include "program/system/remove_files.h"

#include <algorithm>
#include <array>
#include <set>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

constexpr std::array<const char*, 5> datasetFiles = {"converted_from_ply.ytr", "data.bin", "index.bin",
                                                     "shcoef.bin", "log.txt"};
// Every dataset has these. A folder with only data.bin or log.txt may belong to something else.
constexpr std::array<const char*, 3> necessaryFiles = {"converted_from_ply.ytr", "data.bin", "index.bin"};

} // namespace

FolderListing listFolder(const fs::path& folder) {
    std::set<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        const std::string name = textFromPath(entry.path().filename());
        const bool isOwn = std::ranges::find(datasetFiles, name) != datasetFiles.end();
        if (!isOwn || entry.symlink_status().type() != fs::file_type::regular) {
            return {FolderContent::other, "it holds " + name + (isOwn ? ", which is not a plain file" : "")};
        }
        names.insert(name);
    }
    if (names.empty()) {
        return {FolderContent::empty, {}};
    }
    for (const char* name : necessaryFiles) {
        if (!names.contains(name)) {
            return {FolderContent::other, std::string("it lacks ") + name};
        }
    }
    return {FolderContent::dataset, {}};
}

std::vector<fs::path> filesOfDataset(const fs::path& folder) {
    std::error_code ignored;
    std::vector<fs::path> files;
    if (fs::symlink_status(folder, ignored).type() == fs::file_type::directory) {
        for (const char* name : datasetFiles) {
            if (fs::symlink_status(folder / name, ignored).type() == fs::file_type::regular) {
                files.push_back(folder / name);
            }
        }
    }
    return files;
}

std::error_code removeDataset(const fs::path& folder) {
    std::error_code error;
    if (fs::symlink_status(folder, error).type() != fs::file_type::directory) {
        return fs::exists(fs::symlink_status(folder, error))
                   ? std::make_error_code(std::errc::not_a_directory)
                   : std::error_code();
    }
    // The disk space should be free when this returns, but an interrupted program should end quickly.
    return removeFiles(
        filesOfDataset(folder), [] { return !interrupted(); }, folder);
}

} // namespace Tavrin::SplatProgram
