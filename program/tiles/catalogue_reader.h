// Reads a catalogue back: which datasets it names, and where their splats lie.
#pragma once

#include <array>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// A tile as its item says it. Nothing of it has been looked at on the disk.
struct ListedTile {
    std::string id;
    std::filesystem::path folder;             // of the dataset; relative when the catalogue's path is
    std::optional<std::array<double, 6>> box; // of the splats in world coordinates: least x, y, z, then most
};

// The tiles of a catalogue, in its order. Throws a Failure (InputRefused) when the file cannot be read, is no
// catalogue, or names a tile that is no local file.
std::vector<ListedTile> tilesOfCatalogue(const std::filesystem::path& file);

} // namespace Tavrin::SplatProgram
