// The two cameras: one in perspective, and one that looks straight down from everywhere at once.
#pragma once

#include "reader/meta.h"

#include <array>

namespace Tavrin::SplatPicture {

using SplatReader::Point;

// How a camera sees what is around one point of the scene.
struct View {
    double x = 0.0;     // of the point, in pixels from the picture's left edge
    double y = 0.0;     // and from its upper edge
    double depth = 0.0; // what has less of it covers what has more
    Point right{};      // pixels to the right a unit of the scene along each axis
    Point down{};
    Point direction{}; // unit vector from the eye to the point
};

// Looks from an eye at a target. Pixels are square.
class PerspectiveCamera {
public:
    // `fieldOfView` is the angle across the picture's width, in degrees. `up` appears upright and must not be
    // along the line of sight.
    PerspectiveCamera(const Point& eye, const Point& target, const Point& up, double fieldOfView, int width,
                      int height);

    // False when the point is behind the eye, or so far to the side that its surroundings are not seen as
    // `view` says.
    bool see(const Point& point, View& view) const;

private:
    Point eye_;
    Point right_;
    Point down_;
    Point forward_;
    double focal_; // pixels
    double centreX_;
    double centreY_;
};

// Looks along -z. x points to the right of the picture, y upwards.
class DownwardCamera {
public:
    // The picture's upper left corner lies at (left, top); a pixel covers `pixel` units.
    DownwardCamera(double left, double top, double pixel) : left_(left), top_(top), pixel_(pixel) {}

    // Always true.
    bool see(const Point& point, View& view) const;

private:
    double left_;
    double top_;
    double pixel_;
};

// The value of each of the 15 spherical harmonics of degrees 1 to 3 in the direction of a unit vector from
// the eye to a splat. docs/format.md states the formulas.
std::array<double, 15> harmonics(const Point& direction);

} // namespace Tavrin::SplatPicture
