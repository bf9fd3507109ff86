// Recognises a dataset's folder by the names in it, and removes one.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace Tavrin::SplatProgram {

// The content of a folder, judged by file names alone.
enum class FolderContent {
    empty,
    dataset, // the files of a finished dataset and nothing else
    other,
};

struct FolderListing {
    FolderContent content = FolderContent::empty;
    // For `other`: the name that no conversion writes, or the missing one that every dataset has.
    std::string reason;
};

// Throws std::filesystem::filesystem_error when the folder cannot be listed.
FolderListing listFolder(const std::filesystem::path& folder);

// The files in the folder that a conversion writes; none where the folder is missing or no folder.
std::vector<std::filesystem::path> filesOfDataset(const std::filesystem::path& folder);

// Removes the files that a conversion writes, then the folder if it is empty. If the folder holds anything
// else, both stay, and the error is std::errc::directory_not_empty. A missing folder is no error. Returns
// when the disk space is free, or when an interrupt was noted.
std::error_code removeDataset(const std::filesystem::path& folder);

} // namespace Tavrin::SplatProgram
