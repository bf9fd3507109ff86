// Checks whether a dataset may be put at its output path, before and after the conversion.
#pragma once

#include "program/convert/dataset_folder.h"

#include <filesystem>
#include <string>

namespace Tavrin::SplatProgram {

// The output path of a dataset, and what is there.
struct OutputPlace {
    std::string name;                 // as given
    std::filesystem::path folder;     // absolute, links followed; may not exist
    std::filesystem::path foundation; // the folder itself or its nearest ancestor that exists
    bool exists = false;
    FolderContent content = FolderContent::empty;
};

// Resolves the name. If its last component is a link, the link is followed. Throws a Failure (OutputRefused)
// for a name that cannot be resolved.
OutputPlace resolveOutput(const std::string& name);

// Throws a Failure (OutputRefused) unless a dataset may be put there. The place must be free, or hold an
// empty folder or an earlier dataset (with `force` any folder). The folder must be one that can be renamed,
// and must contain neither the input nor the current folder. Sets `exists` and `content`.
void checkOutput(OutputPlace& place, const std::string& input, bool force);

} // namespace Tavrin::SplatProgram
