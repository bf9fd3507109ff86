// Opening an input of any kind: the kind is told from the content, not from the name.
#pragma once

#include "source/axes.h"
#include "source/input.h"

#include <filesystem>
#include <memory>

namespace Tavrin::SplatSource {

struct OpenOptions {
    unsigned threads = 1;                // for passes that opening takes, at least 1
    InputAxes axes = InputAxes::stated;  // kinds of files that leave them open
    std::filesystem::path scratchFolder; // for what has to be unpacked; it exists
};

// Throws SourceError when the file cannot be opened, is no splat file (what it looks like instead, and what
// would do) or is damaged.
std::unique_ptr<Input> openSource(const std::filesystem::path& path, const OpenOptions& options);

} // namespace Tavrin::SplatSource
