// An input file of a dataset, as reports and done records name it.
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

// Path, size and time of the file called `name`. Nothing when the file does not exist or cannot be inspected.
std::optional<InputFile> lookAtInput(const std::string& name);

// "2026-01-31T09:05:07.123456789Z"
std::string timeText(std::int64_t nanosecondsSince1970);

// Now, in nanoseconds since 1970.
std::int64_t timeNow();

} // namespace Tavrin::SplatProgram
