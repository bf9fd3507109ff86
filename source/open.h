// Opens an input of any kind. The content decides the kind, not the name.
#pragma once

#include "source/axes.h"
#include "source/input.h"
#include "source/record_file.h"

#include <filesystem>
#include <memory>

namespace Tavrin::SplatSource {

struct OpenOptions {
    unsigned threads = 1;                // for passes that opening needs, at least 1
    InputAxes axes = InputAxes::stated;  // for kinds of files that do not state them
    std::filesystem::path scratchFolder; // for unpacked data; it exists
    Pause pause;                         // may be empty; kept for later reads, too
};

// Throws SourceError when the file cannot be opened, is damaged, or is not a splat file. In the last case the
// message says what the file looks like and what helps.
std::unique_ptr<Input> openSource(const std::filesystem::path& path, const OpenOptions& options);

// The same, but reads only the header and the size of the file, so it does not notice damage after the
// header. Reading records of the result throws std::logic_error.
std::unique_ptr<Input> openHeader(const std::filesystem::path& path);

} // namespace Tavrin::SplatSource
