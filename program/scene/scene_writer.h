// Writes a dataset as a splat PLY file.
#pragma once

#include "program/scene/scan_progress.h"
#include "reader/dataset.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// The header of an exported scene.
struct SceneHeader {
    std::string text;                 // up to and including end_header and its line feed
    std::vector<std::string> remarks; // one line for each comment that could not be restored
};

// The header of a splat PLY of `splats` records. From its comments the converter writes the values of `meta`
// again.
SceneHeader sceneHeader(const SplatReader::Meta& meta, std::uint64_t splats);

// Writes the level 0 splats of the given cells, in the order of data.bin, as a binary splat PLY. Throws a
// Failure (OutputRefused when the file cannot be written, Interrupted when an interrupt was noted) and
// DatasetError when the dataset cannot be read. The caller then removes the incomplete file.
void writeScene(const SplatReader::Dataset& dataset, const std::vector<std::size_t>& cells,
                const std::string& header, const std::filesystem::path& path, const ScanProgress& progress);

} // namespace Tavrin::SplatProgram
