// Output files that appear under their name only when they are complete.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {

// Throws a Failure (OutputRefused) when a file may not be written there: the name belongs to something other
// than a regular file, a file exists and `force` is not set, or the folder is missing.
void checkTargetFile(const std::string& name, bool force);

// A temporary file beside the target. publish() renames it; otherwise the destructor removes it.
class PartialFile {
public:
    explicit PartialFile(const std::filesystem::path& target);
    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;
    ~PartialFile();

    // The temporary file, to write to.
    const std::filesystem::path& path() const { return path_; }

    // Flushes the file to the disk and renames it to the target. Throws a Failure (OutputRefused) when that
    // fails.
    void publish();

private:
    std::filesystem::path target_;
    std::filesystem::path path_;
};

// Writes a file with this text. It appears, or replaces an earlier one, when it is complete and on the disk.
// Throws a Failure (OutputRefused).
void writeWholeFile(const std::filesystem::path& path, std::string_view text);

} // namespace Tavrin::SplatProgram
