#include "program/tiles/footprint.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace Tavrin::SplatProgram {
namespace {

constexpr double fullTurn = 360.0;
constexpr double halfTurn = 180.0;
constexpr double poleLatitude = 90.0;

// The equivalent longitude between -180 and 180 degrees.
double wrapped(double degrees) {
    return std::remainder(degrees, fullTurn);
}

bool isPole(const LonLat& point) {
    constexpr double nearly = 1e-9; // degrees: a tenth of a millimetre on the ground
    return std::abs(point.latitude) > poleLatitude - nearly;
}

// The approximate distance in metres between `middle` and the midpoint of the straight line between the
// others.
double deviation(const LonLat& from, const LonLat& to, const LonLat& middle) {
    constexpr double metresPerDegree = 111'320.0;
    const double east =
        wrapped(middle.longitude - from.longitude) - 0.5 * wrapped(to.longitude - from.longitude);
    const double north = middle.latitude - 0.5 * (from.latitude + to.latitude);
    const double radians = middle.latitude * std::numbers::pi / halfTurn;
    return metresPerDegree * std::hypot(wrapped(east) * std::cos(radians), north);
}

struct Corner {
    double x;
    double y;
};

// The points that divide an edge into `parts` parts, without the last one. Empty when one has no place on the
// globe.
std::vector<LonLat> edgePoints(const Corner& from, const Corner& to, unsigned parts, const ToGlobe& toGlobe) {
    std::vector<LonLat> points;
    for (unsigned i = 0; i < parts; ++i) {
        const double share = static_cast<double>(i) / parts;
        const auto point = toGlobe(from.x + share * (to.x - from.x), from.y + share * (to.y - from.y));
        if (!point) {
            return {};
        }
        points.push_back(*point);
    }
    return points;
}

// The same with as many parts as the edge needs: doubled until the points in the middle of the parts lie
// close enough to the straight lines.
std::vector<LonLat> bentEdge(const Corner& from, const Corner& to, const ToGlobe& toGlobe) {
    constexpr unsigned fewest = 4;
    constexpr unsigned most = 256;
    constexpr double tolerance = 0.0005; // metres
    const auto end = toGlobe(to.x, to.y);
    std::vector<LonLat> points = edgePoints(from, to, fewest, toGlobe);
    for (unsigned parts = fewest; end && !points.empty() && parts < most; parts *= 2) {
        std::vector<LonLat> finer = edgePoints(from, to, 2 * parts, toGlobe);
        if (finer.empty()) {
            return {};
        }
        double largest = 0.0;
        for (std::size_t i = 0; i < points.size(); ++i) {
            const LonLat& next = i + 1 < points.size() ? points[i + 1] : *end;
            largest = std::max(largest, deviation(points[i], next, finer[2 * i + 1]));
        }
        if (largest <= tolerance) {
            return points;
        }
        points = std::move(finer);
    }
    return end ? points : std::vector<LonLat>();
}

// The outline without its closing point; empty when a point has no place on the globe.
std::vector<LonLat> outlineOf(const Rectangle& box, const ToGlobe& toGlobe) {
    const std::vector<Corner> corners = {
        {box.minX, box.minY}, {box.maxX, box.minY}, {box.maxX, box.maxY}, {box.minX, box.maxY}};
    std::vector<LonLat> outline;
    for (std::size_t i = 0; i < corners.size(); ++i) {
        const std::vector<LonLat> edge = bentEdge(corners[i], corners[(i + 1) % corners.size()], toGlobe);
        if (edge.empty()) {
            return {};
        }
        outline.insert(outline.end(), edge.begin(), edge.end());
    }
    return outline;
}

// Gives points at a pole a longitude. The outline reaches a pole on the meridian of the point before it and
// leaves on the meridian of the point after it. An edge that lies on a pole as a whole keeps its longitudes.
std::vector<LonLat> withPolesOpened(const std::vector<LonLat>& outline) {
    std::vector<LonLat> opened;
    const std::size_t count = outline.size();
    for (std::size_t i = 0; i < count; ++i) {
        const LonLat& before = outline[(i + count - 1) % count];
        const LonLat& behind = outline[(i + 1) % count];
        if (!isPole(outline[i]) || isPole(before) || isPole(behind)) {
            opened.push_back(outline[i]);
            continue;
        }
        opened.push_back({before.longitude, outline[i].latitude});
        opened.push_back({behind.longitude, outline[i].latitude});
    }
    return opened;
}

// Closes the outline and lets longitudes exceed 180 degrees, so that no step is wider than half a turn. If a
// pole lies inside, the longitudes of the first and the last point differ by a full turn.
Ring unwrapped(const std::vector<LonLat>& outline) {
    Ring ring = {outline.front()};
    for (std::size_t i = 1; i <= outline.size(); ++i) {
        const LonLat& next = outline[i % outline.size()];
        const double last = ring.back().longitude;
        ring.push_back({last + wrapped(next.longitude - last), next.latitude});
    }
    return ring;
}

void shift(Ring& ring, double degrees) {
    for (LonLat& point : ring) {
        point.longitude += degrees;
    }
}

// The point of a line at this longitude.
LonLat crossing(const LonLat& one, const LonLat& other, double longitude) {
    const double share = (longitude - one.longitude) / (other.longitude - one.longitude);
    return {longitude, one.latitude + share * (other.latitude - one.latitude)};
}

// The part of a ring on one side of a meridian; west of it when `isWest`.
Ring partBeside(const Ring& ring, double meridian, bool isWest) {
    const auto isInside = [&](const LonLat& point) {
        return isWest ? point.longitude <= meridian : point.longitude >= meridian;
    };
    Ring part;
    for (std::size_t i = 0; i + 1 < ring.size(); ++i) {
        if (isInside(ring[i])) {
            part.push_back(ring[i]);
        }
        if (isInside(ring[i]) != isInside(ring[i + 1])) {
            part.push_back(crossing(ring[i], ring[i + 1], meridian));
        }
    }
    part.push_back(part.front());
    return part;
}

// The ring around a pole, from -180 to 180 degrees and closed along the pole. The outline has been unwrapped.
Ring aroundPole(Ring outline) {
    double latitudes = 0.0;
    for (const LonLat& point : outline) {
        latitudes += point.latitude;
    }
    const double pole = std::copysign(poleLatitude, latitudes);
    if (outline.back().longitude < outline.front().longitude) {
        std::ranges::reverse(outline);
    }
    // The first point at or beyond the meridian of 180 degrees. There is one, since the outline goes around
    // the globe.
    const double meridian =
        std::ceil((outline.front().longitude - halfTurn) / fullTurn) * fullTurn + halfTurn;
    std::size_t at = 1;
    while (at + 1 < outline.size() && outline[at].longitude < meridian) {
        ++at;
    }
    const double latitude = crossing(outline[at - 1], outline[at], meridian).latitude;
    Ring ring = {{-halfTurn, latitude}};
    for (std::size_t i = at; i < outline.size(); ++i) {
        ring.push_back({outline[i].longitude - meridian - halfTurn, outline[i].latitude});
    }
    for (std::size_t i = 1; i < at; ++i) { // the last point equals the first
        ring.push_back({outline[i].longitude + fullTurn - meridian - halfTurn, outline[i].latitude});
    }
    ring.push_back({halfTurn, latitude});
    ring.push_back({halfTurn, pole});
    ring.push_back({-halfTurn, pole});
    ring.push_back(ring.front());
    return ring;
}

// Rounds to a hundredth of a millimetre. Finer digits differ between builds of PROJ.
double rounded(double degrees) {
    constexpr double parts = 1e10;
    return std::round(degrees * parts) / parts + 0.0; // no negative zero
}

double signedArea(const Ring& ring) {
    double area = 0.0;
    for (std::size_t i = 0; i + 1 < ring.size(); ++i) {
        // Relative to the first point, which keeps the precision for a small tile.
        const double x0 = ring[i].longitude - ring[0].longitude;
        const double y0 = ring[i].latitude - ring[0].latitude;
        const double x1 = ring[i + 1].longitude - ring[0].longitude;
        const double y1 = ring[i + 1].latitude - ring[0].latitude;
        area += x0 * y1 - x1 * y0;
    }
    return area;
}

Footprint finished(std::vector<Ring> polygons) {
    Footprint footprint;
    footprint.west = halfTurn;
    footprint.east = -halfTurn;
    footprint.south = poleLatitude;
    footprint.north = -poleLatitude;
    for (Ring& ring : polygons) {
        double west = halfTurn;
        double east = -halfTurn;
        for (LonLat& point : ring) {
            point = {rounded(point.longitude), rounded(point.latitude)};
            west = std::min(west, point.longitude);
            east = std::max(east, point.longitude);
            footprint.south = std::min(footprint.south, point.latitude);
            footprint.north = std::max(footprint.north, point.latitude);
        }
        if (signedArea(ring) < 0.0) {
            std::ranges::reverse(ring);
        }
        // Of two polygons the first lies west of the meridian of 180 degrees and the second east of it.
        footprint.west = &ring == &polygons.front() ? west : footprint.west;
        footprint.east = &ring == &polygons.back() ? east : footprint.east;
    }
    footprint.polygons = std::move(polygons);
    return footprint;
}

} // namespace

std::optional<Footprint> footprintOf(const Rectangle& box, const ToGlobe& toGlobe) {
    const std::vector<LonLat> outline = outlineOf(box, toGlobe);
    if (outline.empty()) {
        return std::nullopt;
    }
    Ring ring = unwrapped(withPolesOpened(outline));
    if (std::abs(ring.back().longitude - ring.front().longitude) > halfTurn) {
        return finished({aroundPole(std::move(ring))});
    }
    ring.back() = ring.front();
    const auto west = [&] { return std::ranges::min(ring, {}, &LonLat::longitude).longitude; };
    shift(ring, -fullTurn * std::floor((west() + halfTurn) / fullTurn));
    const double east = std::ranges::max(ring, {}, &LonLat::longitude).longitude;
    if (east <= halfTurn) {
        return finished({std::move(ring)});
    }
    Ring beyond = partBeside(ring, halfTurn, false);
    shift(beyond, -fullTurn);
    return finished({partBeside(ring, halfTurn, true), std::move(beyond)});
}

} // namespace Tavrin::SplatProgram
