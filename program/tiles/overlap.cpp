#include "program/tiles/overlap.h"

// By default coordinates are scaled to integers, which loses digits of small tiles.
#define BOOST_GEOMETRY_NO_ROBUSTNESS
#define BOOST_ALLOW_DEPRECATED_HEADERS // the library includes them itself

#include <boost/geometry/algorithms/append.hpp>
#include <boost/geometry/algorithms/area.hpp>
#include <boost/geometry/algorithms/intersection.hpp>
#include <boost/geometry/geometries/multi_polygon.hpp>
#include <boost/geometry/geometries/point_xy.hpp>
#include <boost/geometry/geometries/polygon.hpp>
#include <boost/geometry/strategies/strategies.hpp>

#include <algorithm>
#include <cmath>
#include <numbers>

namespace Tavrin::SplatProgram {
namespace {

namespace geometry = boost::geometry;
using PlanePoint = geometry::model::d2::point_xy<double>;
using Polygon = geometry::model::polygon<PlanePoint, false>; // counterclockwise
using Polygons = geometry::model::multi_polygon<Polygon>;

// Maps the footprint to longitude and the sine of latitude, a projection that preserves areas.
Polygons onEqualAreas(const Footprint& footprint) {
    constexpr double radians = std::numbers::pi / 180.0;
    Polygons polygons;
    for (const Ring& ring : footprint.polygons) {
        Polygon polygon;
        for (const LonLat& point : ring) {
            geometry::append(polygon,
                             PlanePoint(point.longitude * radians, std::sin(point.latitude * radians)));
        }
        polygons.push_back(std::move(polygon));
    }
    return polygons;
}

double shareOf(const Rectangle& one, const Rectangle& other) {
    const Rectangle common = {std::max(one.minX, other.minX), std::max(one.minY, other.minY),
                              std::min(one.maxX, other.maxX), std::min(one.maxY, other.maxY)};
    const double smaller = std::min(one.area(), other.area());
    const bool isThere = common.minX < common.maxX && common.minY < common.maxY;
    return isThere && smaller > 0.0 ? common.area() / smaller : 0.0;
}

double shareOf(const Footprint& one, const Footprint& other) {
    // A quick test by boxes first, as most tiles lie far apart. It does not hold for footprints across the
    // meridian of 180 degrees.
    const bool isPlain = one.polygons.size() == 1 && other.polygons.size() == 1;
    if (one.south > other.north || other.south > one.north ||
        (isPlain && (one.west > other.east || other.west > one.east))) {
        return 0.0;
    }
    const Polygons first = onEqualAreas(one);
    const Polygons second = onEqualAreas(other);
    Polygons common;
    geometry::intersection(first, second, common);
    const double smaller = std::min(geometry::area(first), geometry::area(second));
    return smaller > 0.0 ? geometry::area(common) / smaller : 0.0;
}

double shareOf(const Ground& one, const Ground& other) {
    if (one.epsg == 0 || other.epsg == 0) {
        return 0.0;
    }
    if (one.epsg == other.epsg) {
        return shareOf(one.box, other.box);
    }
    return one.footprint != nullptr && other.footprint != nullptr ? shareOf(*one.footprint, *other.footprint)
                                                                  : 0.0;
}

} // namespace

std::vector<Overlap> overlapsOf(const std::vector<Ground>& tiles, double least) {
    std::vector<Overlap> overlaps;
    for (std::size_t i = 0; i < tiles.size(); ++i) {
        for (std::size_t j = i + 1; j < tiles.size(); ++j) {
            const double share = shareOf(tiles[i], tiles[j]);
            if (share > least) {
                overlaps.push_back({i, j, share});
            }
        }
    }
    return overlaps;
}

} // namespace Tavrin::SplatProgram
