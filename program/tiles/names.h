// How a catalogue names its tiles and their files.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatProgram {

// One id for each of several different folders: the folder's name, with as many of its parents in front
// ("north/tile_7") as set it apart from the others. The paths are absolute and normal.
std::vector<std::string> idsOf(const std::vector<std::filesystem::path>& folders);

// The reference to a file, relative to the folder that the catalogue stands in: "./tile_7/data.bin" or
// "../tile_7/data.bin", with every byte that a URL does not take as it is as %XX. Both paths are absolute and
// normal.
std::string relativeReference(const std::filesystem::path& file, const std::filesystem::path& folder);

// What is wrong with an address for referenceAt; empty when nothing is.
std::string checkBase(std::string_view base);

// The reference at an address that stands for the catalogue's folder, a URL or an absolute path. Nothing when
// the reference leads out of all folders of the address.
std::optional<std::string> referenceAt(std::string_view base, std::string_view reference);

} // namespace Tavrin::SplatProgram
