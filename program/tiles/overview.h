// The picture beside a dataset, which a catalogue refers to.
#pragma once

#include "program/tiles/footprint.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace Tavrin::SplatProgram {

struct Overview {
    std::filesystem::path file;
    bool isPng = false; // else a GeoTIFF
    std::uint64_t bytes = 0;
    std::uint32_t columns = 0;
    std::uint32_t rows = 0;
    std::int32_t epsg = 0; // as the file states it; 0 where it states none, as in every PNG
    // From pixels to world coordinates: x = t[0] column + t[1] row + t[2] and y = t[3] column + t[4] row +
    // t[5]. Whole columns and rows are the corners of pixels.
    std::array<double, 6> transform{};

    // The area that the picture covers, in world coordinates.
    Rectangle box() const;
};

// The picture of the dataset in this folder: beside the folder OUT, OUT.tif or else OUT.png with its world
// file OUT.pgw. Nothing if there is none. If the file cannot be read or is not georeferenced, nothing, and
// `remark` holds the reason.
std::optional<Overview> overviewBeside(const std::filesystem::path& folder, std::string& remark);

// The transform of a world file; nothing for any other text.
std::optional<std::array<double, 6>> worldFileTransform(const std::string& text);

} // namespace Tavrin::SplatProgram
