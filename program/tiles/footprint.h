// The outline of a tile on the globe.
#pragma once

#include <functional>
#include <optional>
#include <vector>

namespace Tavrin::SplatProgram {

// Degrees: longitude from -180 to 180 but where a comment says otherwise, latitude from -90 to 90.
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
    // One polygon, or two where the tile lies on both sides of the meridian of 180 degrees: each ends there.
    std::vector<Ring> polygons;
    // The box of the polygons. `west` is larger than `east` where there are two.
    double west = 0.0;
    double south = 0.0;
    double east = 0.0;
    double north = 0.0;
};

// The point of the globe at (x, y) of world coordinates; nothing where there is none.
using ToGlobe = std::function<std::optional<LonLat>(double x, double y)>;

// The outline of the rectangle. What is straight in world coordinates is bent on the globe, so each edge gets
// as many points, 4 to 256 parts, as keep the straight lines between them within half a millimetre of it.
// A rectangle around a pole reaches from -180 to 180 degrees and up to the pole. Nothing when a point of the
// outline has no place on the globe.
std::optional<Footprint> footprintOf(const Rectangle& box, const ToGlobe& toGlobe);

} // namespace Tavrin::SplatProgram
