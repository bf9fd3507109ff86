// Whether a dataset may take its place, before and after the conversion.
#pragma once

#include "program/convert/dataset_folder.h"

#include <filesystem>
#include <string>

namespace Tavrin::SplatProgram {

// Where the dataset is to stand.
struct OutputPlace {
    std::string name;                 // as given
    std::filesystem::path folder;     // absolute, links followed; may not exist
    std::filesystem::path foundation; // the folder itself or its nearest ancestor that exists
    bool exists = false;
    FolderContent content = FolderContent::empty;
};

// Resolves the name. A last component that is a link leads to the folder behind it. Throws a Failure
// (OutputRefused) for names that lead nowhere.
OutputPlace resolveOutput(const std::string& name);

// Throws a Failure (OutputRefused) unless a dataset may take the place: nothing is there, or an empty folder,
// or an earlier dataset, or with `force` any folder; it can be renamed; and neither the input nor the current
// folder is in it. Fills in what stands there.
void checkOutput(OutputPlace& place, const std::string& input, bool force);

} // namespace Tavrin::SplatProgram
