// A file that appears under its name when it is whole.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {

// Throws a Failure (OutputRefused) when a file may not be written there: something other than a plain file
// has the name, a file has it and `force` is not set, or there is no folder for it.
void checkTargetFile(const std::string& name, bool force);

// The file that is written first, and renamed when it is whole. It is removed unless it was.
class PartialFile {
public:
    explicit PartialFile(const std::filesystem::path& target);
    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;
    ~PartialFile();

    // To write to.
    const std::filesystem::path& path() const { return path_; }

    // Flushes it to the disk and gives it the target's name. Throws a Failure (OutputRefused) when that
    // fails.
    void publish();

private:
    std::filesystem::path target_;
    std::filesystem::path path_;
};

// Writes a file that appears, or replaces an earlier one, when it is whole and on the disk. Throws a Failure
// (OutputRefused).
void writeWholeFile(const std::filesystem::path& path, std::string_view text);

} // namespace Tavrin::SplatProgram
