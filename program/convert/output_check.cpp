#include "program/convert/output_check.h"

#include "program/system/exit_status.h"
#include "program/system/platform.h"

#include <fmt/format.h>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void refuse(const std::string& name, const std::string& what) {
    throw Failure(ExitStatus::outputRefused, fmt::format("{}: {}", name, what));
}

// True when `path` or one of its ancestors is `folder`. Identities are compared, not names, so links, bind
// mounts and letter case make no difference.
bool standsIn(fs::path path, const FileIdentity& folder) {
    for (;; path = path.parent_path()) {
        if (identityOf(path) == folder) {
            return true;
        }
        if (path == path.parent_path()) {
            return false;
        }
    }
}

// Some C++ libraries do not follow links on every system.
fs::path linksFollowed(const fs::path& path) {
    std::error_code error;
    const fs::path resolved = resolvedPath(path, error);
    return error ? path : resolved;
}

// Replacing the folder would delete a link in it as well as a file. So both the input's own name and the file
// behind it are checked.
bool holdsInput(const OutputPlace& place, const std::string& input) {
    const auto folder = identityOf(place.folder);
    const fs::path path = fs::absolute(pathFromText(input));
    return folder && (standsIn(linksFollowed(fs::canonical(path)), *folder) ||
                      standsIn(linksFollowed(fs::canonical(path.parent_path())), *folder));
}

// --force deletes everything in the folder. So the folder may not contain the input under another name, nor a
// mounted file system.
void checkTree(const OutputPlace& place, const std::string& input) {
    const auto inputIdentity = identityOf(pathFromText(input));
    const auto folder = identityOf(place.folder);
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(place.folder)) {
        if (entry.is_symlink()) {
            continue;
        }
        const auto identity = identityOf(entry.path());
        if (identity && identity == inputIdentity) {
            refuse(place.name,
                   fmt::format("holds the input as {}: choose another folder", textFromPath(entry.path())));
        }
        if ((identity && identity->device != folder->device) ||
            (entry.is_directory() && isMountPoint(entry.path()))) {
            refuse(place.name, fmt::format("another file system is mounted at {}: choose another folder",
                                           textFromPath(entry.path())));
        }
    }
}

void checkContent(OutputPlace& place, const std::string& input, bool force) {
    try {
        const FolderListing listing = listFolder(place.folder);
        place.content = listing.content;
        if (listing.content == FolderContent::other && !force) {
            refuse(place.name,
                   fmt::format("is neither empty nor an earlier dataset ({}): choose another folder, or "
                               "--force to delete everything in it",
                               listing.reason));
        }
        if (listing.content == FolderContent::other) {
            checkTree(place, input);
        }
    } catch (const fs::filesystem_error& error) {
        refuse(place.name,
               fmt::format("cannot be listed: {}: check its permissions", error.code().message()));
    }
}

void requireWritable(const OutputPlace& place, const fs::path& folder) {
    if (const std::error_code error = checkWritable(folder)) {
        refuse(place.name,
               fmt::format("{} cannot be written to: {}: choose another place, or change its permissions",
                           textFromPath(folder), error.message()));
    }
}

} // namespace

OutputPlace resolveOutput(const std::string& name) {
    OutputPlace place;
    place.name = name;
    std::error_code error;
    fs::path path = fs::absolute(pathFromText(name));
    if (!path.has_filename()) {
        path = path.parent_path(); // a separator at the end
    }
    place.folder = resolvedPath(path, error);
    if (error) {
        refuse(name, fmt::format("cannot be resolved: {}", error.message()));
    }
    if (!place.folder.has_filename() && place.folder != place.folder.root_path()) {
        place.folder = place.folder.parent_path();
    }
    place.exists = fs::exists(place.folder, error);
    // Some C++ libraries do not recognise every kind of link.
    if (fs::is_symlink(fs::symlink_status(place.folder, error)) ||
        (!place.exists && isMountPoint(place.folder))) {
        refuse(name, "is a link that leads nowhere: remove it, or create the folder behind it");
    }
    place.foundation = place.folder;
    while (!fs::exists(place.foundation, error) && place.foundation != place.foundation.root_path()) {
        place.foundation = place.foundation.parent_path();
    }
    return place;
}

void checkOutput(OutputPlace& place, const std::string& input, bool force) {
    std::error_code error;
    if (!converterPath(place.folder)) {
        refuse(place.name, fmt::format("this system's code page lacks a letter of {}: choose another place",
                                       textFromPath(place.folder)));
    }
    if (!fs::is_directory(place.foundation, error)) {
        if (identityOf(place.foundation) == identityOf(pathFromText(input))) {
            refuse(place.name, place.exists ? "is the input itself: choose another name"
                                            : "lies inside the input's path: choose another folder");
        }
        refuse(place.name,
               fmt::format("{} is not a folder: choose another name", textFromPath(place.foundation)));
    }
    if (!place.exists) {
        requireWritable(place, place.foundation);
        return;
    }
    if (place.folder == place.folder.root_path() || isMountPoint(place.folder)) {
        refuse(place.name, "is a mount point, which cannot be replaced: name a folder in it");
    }
    if (holdsInput(place, input)) {
        refuse(place.name, "holds the input, which would be deleted: choose another folder");
    }
    if (const auto folder = identityOf(place.folder);
        folder && standsIn(linksFollowed(fs::current_path()), *folder)) {
        refuse(place.name, "is or holds the current folder: start from another folder, or name a new one");
    }
    checkContent(place, input, force);
    requireWritable(place, place.folder);
    requireWritable(place, place.folder.parent_path());
}

} // namespace Tavrin::SplatProgram
