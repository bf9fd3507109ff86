// The files that a dataset is made of, as reports and records of what is done name them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Tavrin::SplatProgram {

struct InputFile {
    std::string name;         // as given
    std::string path;         // absolute, links followed
    std::uint64_t bytes = 0;  // of the file
    std::int64_t changed = 0; // time of the last write, in nanoseconds since 1970
};

// Nothing when there is no such file, or the system does not tell.
std::optional<InputFile> lookAtInput(const std::string& name);

// "2026-01-31T09:05:07.123456789Z"
std::string timeText(std::int64_t nanosecondsSince1970);

// Now, in nanoseconds since 1970.
std::int64_t timeNow();

} // namespace Tavrin::SplatProgram
