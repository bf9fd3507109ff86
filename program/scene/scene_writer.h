// A dataset as a splat PLY file.
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
    std::vector<std::string> remarks; // the comments that could not be restored, and why
};

// The header of a splat PLY of `splats` records. Its comments make the converter write the values of `meta`
// again.
SceneHeader sceneHeader(const SplatReader::Meta& meta, std::uint64_t splats);

// Writes the given cells' splats of level 0, in the order of data.bin, as a binary splat PLY. Throws a
// Failure (OutputRefused) when the file cannot be written, (Interrupted) when an interrupt was noted, and
// DatasetError when the dataset cannot be read. The caller then removes what was written.
void writeScene(const SplatReader::Dataset& dataset, const std::vector<std::size_t>& cells,
                const std::string& header, const std::filesystem::path& path, const ScanProgress& progress);

} // namespace Tavrin::SplatProgram
