// The picture that stands beside a dataset.
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
    // x = t[0] column + t[1] row + t[2] and y = t[3] column + t[4] row + t[5], at the corners of pixels, in
    // world coordinates.
    std::array<double, 6> transform{};

    // What the picture covers.
    Rectangle box() const;
};

// The picture of the dataset in this folder: OUT.tif, or else OUT.png with its world file OUT.pgw, beside the
// folder OUT. Nothing where there is none. Nothing, and the reason in `remark`, where the file cannot be read
// or does not say where it lies.
std::optional<Overview> overviewBeside(const std::filesystem::path& folder, std::string& remark);

// The transform of a world file; nothing for any other text.
std::optional<std::array<double, 6>> worldFileTransform(const std::string& text);

} // namespace Tavrin::SplatProgram
