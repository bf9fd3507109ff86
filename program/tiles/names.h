// The ids of a catalogue's tiles, and the references to their files.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatProgram {

// One id for each folder: its name, with as many parents in front ("north/tile_7") as make it differ from the
// others. The paths are absolute and normal, and no two are equal.
std::vector<std::string> idsOf(const std::vector<std::filesystem::path>& folders);

// The reference to a file, relative to the catalogue's folder: "./tile_7/data.bin" or "../tile_7/data.bin".
// Bytes that a URL may not contain are written as %XX. Both paths are absolute and normal.
std::string relativeReference(const std::filesystem::path& file, const std::filesystem::path& folder);

// The message for an address that referenceAt cannot use; empty for a good one.
std::string checkBase(std::string_view base);

// The relative `reference`, resolved against `base`: the address of the catalogue's folder, a URL or an
// absolute path. Nothing when the reference has more ".." than the address has folders.
std::optional<std::string> referenceAt(std::string_view base, std::string_view reference);

} // namespace Tavrin::SplatProgram
