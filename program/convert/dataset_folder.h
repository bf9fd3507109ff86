// Which folders are datasets, by the names in them, and how one is removed.
#pragma once

#include <filesystem>
#include <string>
#include <system_error>

namespace Tavrin::SplatProgram {

// What stands in a folder, seen by names alone.
enum class FolderContent {
    empty,
    dataset, // the files of a finished dataset and nothing else
    other,
};

struct FolderListing {
    FolderContent content = FolderContent::empty;
    std::string reason; // of other: what it holds that no conversion writes, or what a dataset must hold
};

// Throws std::filesystem::filesystem_error when the folder cannot be listed.
FolderListing listFolder(const std::filesystem::path& folder);

// Removes the files that a conversion writes, and then the folder when it is empty. Whatever else stands in
// it stays, and so does the folder: std::errc::directory_not_empty. A missing folder is no error.
std::error_code removeDataset(const std::filesystem::path& folder);

// The same for an interrupted run: nobody waits until the system has freed the files.
void abandonDataset(const std::filesystem::path& folder) noexcept;

} // namespace Tavrin::SplatProgram
