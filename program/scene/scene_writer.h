// A dataset as a splat PLY file.
#pragma once

#include "program/scene/splat_file.h"
#include "reader/dataset.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// A header comment that could not be restored, or nothing: what is lost and why.
struct SceneHeader {
    std::string text; // up to and including end_header and its line feed
    std::vector<std::string> remarks;
};

// The header of a splat PLY of `splats` records with the geo comments that the dataset's meta document keeps:
// what the converter reads from them is what the document says.
SceneHeader sceneHeader(const SplatReader::Meta& meta, std::uint64_t splats);

// Writes the given cells' splats of level 0, in the order of data.bin, as a binary splat PLY. Throws a
// Failure (OutputRefused) when the file cannot be written, (Interrupted) when an interrupt was noted, and
// DatasetError when the dataset cannot be read. What was written stands then, for the caller to remove.
void writeScene(const SplatReader::Dataset& dataset, const std::vector<std::size_t>& cells,
                const std::string& header, const std::filesystem::path& path, const ScanProgress& progress);

} // namespace Tavrin::SplatProgram
