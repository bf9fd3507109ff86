// The two cameras: a perspective camera, and an orthographic one that looks straight down.
#pragma once

#include "reader/meta.h"

#include <array>

namespace Tavrin::SplatPicture {

using SplatReader::Point;

// The projection of the surroundings of one point of the scene, linear in its coordinates.
struct View {
    double x = 0.0;     // of the point, in pixels from the picture's left edge
    double y = 0.0;     // and from its upper edge
    double depth = 0.0; // a splat with a smaller depth covers one with a larger depth
    Point right{};      // pixels to the right a unit of the scene along each axis
    Point down{};
    Point direction{}; // unit vector from the eye to the point
};

// Looks from an eye at a target. Pixels are square.
class PerspectiveCamera {
public:
    // `fieldOfView` is the horizontal angle of the picture, in degrees. `up` points upwards in the picture
    // and must not be parallel to the line of sight.
    PerspectiveCamera(const Point& eye, const Point& target, const Point& up, double fieldOfView, int width,
                      int height);

    // False when the point is behind the eye, or so far to the side that the linear projection is wrong.
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

// Looks along -z. In the picture x points to the right and y upwards.
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
