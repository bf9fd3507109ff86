#include "program/system/partial_file.h"

#include "program/system/exit_status.h"
#include "program/system/platform.h"

#include <fmt/format.h>

#include <fstream>
#include <system_error>

namespace Tavrin::SplatProgram {

namespace fs = std::filesystem;

void checkTargetFile(const std::string& name, bool force) {
    const fs::path target = pathFromText(name);
    std::error_code ignored;
    const fs::file_status status = fs::symlink_status(target, ignored);
    // Renaming would replace a folder, a device or a link by a file, which is never wanted.
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        throw Failure(ExitStatus::outputRefused,
                      fmt::format("{}: it exists and is not a plain file: give another name", name));
    }
    if (fs::exists(status) && !force) {
        throw Failure(
            ExitStatus::outputRefused,
            fmt::format("{}: the file exists already: give another name, or --force to replace it", name));
    }
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    if (!identityOf(folder) || !fs::is_directory(folder, ignored)) {
        throw Failure(ExitStatus::outputRefused,
                      fmt::format("{}: its folder does not exist: create it first", name));
    }
}

PartialFile::PartialFile(const fs::path& target)
    : target_(target), path_(fs::path(target) += fmt::format(".partial-{}", ownProcessId())) {}

PartialFile::~PartialFile() {
    std::error_code ignored;
    fs::remove(path_, ignored);
}

void PartialFile::publish() {
    std::error_code error = flushToDisk(path_);
    if (!error) {
        fs::rename(path_, target_, error);
    }
    if (error) {
        throw Failure(ExitStatus::outputRefused, fmt::format("{}: the file cannot be put in place: {}",
                                                             textFromPath(target_), error.message()));
    }
}

void writeWholeFile(const fs::path& path, std::string_view text) {
    PartialFile partial(path);
    std::ofstream file(partial.path(), std::ios::binary);
    file.write(text.data(), static_cast<std::streamsize>(text.size()));
    file.close();
    if (!file) {
        throw Failure(ExitStatus::outputRefused,
                      fmt::format("{}: cannot be written: check the disk, its room, and the permissions",
                                  textFromPath(path)));
    }
    partial.publish();
}

} // namespace Tavrin::SplatProgram
