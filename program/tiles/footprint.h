// The outline of a tile on the globe.
#pragma once

#include <functional>
#include <optional>
#include <vector>

namespace Tavrin::SplatProgram {

// In degrees: longitude from -180 to 180 unless a comment says otherwise, latitude from -90 to 90.
struct LonLat {
    double longitude = 0.0;
    double latitude = 0.0;
    bool operator==(const LonLat&) const = default;
};

// A tile seen from above, in world coordinates.
struct Rectangle {
    double minX = 0.0;
    double minY = 0.0;
    double maxX = 0.0;
    double maxY = 0.0;

    double area() const { return (maxX - minX) * (maxY - minY); }
};

// Counterclockwise, the last point equal to the first.
using Ring = std::vector<LonLat>;

struct Footprint {
    // One polygon. Two if the tile crosses the meridian of 180 degrees: each ends there.
    std::vector<Ring> polygons;
    // The box of the polygons. With two polygons `west` is larger than `east`.
    double west = 0.0;
    double south = 0.0;
    double east = 0.0;
    double north = 0.0;
};

// The point on the globe of the world coordinates (x, y); nothing if there is none.
using ToGlobe = std::function<std::optional<LonLat>(double x, double y)>;

// The outline of the rectangle. Its straight edges are curves on the globe, so each edge is divided into 4 to
// 256 parts, enough for the straight lines between their ends to stay within half a millimetre of the curve.
// The footprint of a rectangle around a pole reaches from -180 to 180 degrees and up to the pole. Nothing
// when a point of the outline has no place on the globe.
std::optional<Footprint> footprintOf(const Rectangle& box, const ToGlobe& toGlobe);

} // namespace Tavrin::SplatProgram
