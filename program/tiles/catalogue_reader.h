// Reads a catalogue: the datasets that it names and the boxes of their splats.
#pragma once

#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// A tile as its item describes it. The dataset itself has not been opened.
struct ListedTile {
    std::string id;
    std::filesystem::path folder; // of the dataset; relative when the catalogue's path is
    // Of the splats in world coordinates: minimum x, y, z, then maximum.
    std::optional<std::array<double, 6>> box;
};

// The tiles of a catalogue, in its order. Throws a Failure (InputRefused) when the file cannot be read, is
// not a catalogue, or names a tile that is not a local file.
std::vector<ListedTile> tilesOfCatalogue(const std::filesystem::path& file);

} // namespace Tavrin::SplatProgram
