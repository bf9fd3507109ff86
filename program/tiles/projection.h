// From world coordinates to longitude and latitude, by PROJ.
#pragma once

#include "program/tiles/footprint.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace Tavrin::SplatProgram {

// Throws a Failure (Usage) in a build without PROJ, and one (InputRefused) where PROJ's database is missing.
void requireProjections();

// Converts the coordinates of one EPSG code to longitude and latitude. Not thread-safe.
class Projection {
public:
    // Nothing when no footprint can be computed for this code; `whyNot` then holds the reason ("PROJ does not
    // know EPSG 99999").
    static std::optional<Projection> ofCode(std::int32_t code, std::string& whyNot);

    // The point at x (east, or longitude) and y (north, or latitude), in the units of the code. Nothing
    // outside the area where the code's coordinates are defined.
    std::optional<LonLat> at(double x, double y) const;

    struct Handle; // of PROJ

private:
    explicit Projection(std::shared_ptr<Handle> handle) : handle_(std::move(handle)) {}

    std::shared_ptr<Handle> handle_;
};

} // namespace Tavrin::SplatProgram
