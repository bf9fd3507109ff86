// Opens an input of any kind. The content decides the kind, not the name.
#pragma once

#include "source/axes.h"
#include "source/input.h"
#include "source/record_file.h"

#include <filesystem>
#include <memory>

namespace Tavrin::SplatSource {

struct OpenOptions {
    unsigned threads = 1;                // for passes that opening takes, at least 1
    InputAxes axes = InputAxes::stated;  // kinds of files that leave them open
    std::filesystem::path scratchFolder; // for what has to be unpacked; it exists
    Pause pause;                         // may be empty; kept for later reads, too
};

// Throws SourceError when the file cannot be opened, is damaged, or is no splat file. In the last case the
// message says what it looks like and what would help.
std::unique_ptr<Input> openSource(const std::filesystem::path& path, const OpenOptions& options);

// The same by the header and the size of the file alone: nothing is unpacked and no record is read, so
// damage behind the header goes unnoticed. Reading records of the result throws std::logic_error.
std::unique_ptr<Input> openHeader(const std::filesystem::path& path);

} // namespace Tavrin::SplatSource
