// What one splat covers of a picture.
#pragma once

#include "picture/camera.h"
#include "picture/picture.h"
#include "reader/dequantiser.h"

#include <cstdint>

namespace Tavrin::SplatPicture {

// What covers a pixel by less than this is left out: one step of an 8-bit picture.
inline constexpr float leastAlpha = 1.0f / 255.0f;

// Variance in square pixels that a footprint has at least in every direction, so that small splats do not
// fall between the centres of pixels.
inline constexpr double blurring = 0.3;

// The opacity at (dx, dy) pixels from the centre is opacity * exp(-(u * u + v * v) / 2) with
// u = (dx - slope * dy) * inverseX and v = dy * inverseY. This form of the Gaussian keeps its precision for
// long thin footprints, where the quadratic form would cancel.
struct Footprint {
    double depth = 0.0;       // less of it covers more
    std::uint64_t number = 0; // of the splat; of two at one depth the lower number covers the other
    double x = 0.0;           // of the centre, in pixels of the picture
    double y = 0.0;
    float slope = 0.0f;    // how far the middle of a row lies to the right of that of the row above
    float inverseX = 0.0f; // of the standard deviation inside a row, in pixels
    float inverseY = 0.0f; // of the standard deviation of y, in pixels
    float opacity = 0.0f;
    float reachX = 0.0f; // pixels to the left and right until the opacity is leastAlpha
    float reachY = 0.0f; // pixels up and down
    Colour colour{};     // not negative; may exceed 1
};

inline bool covers(const Footprint& one, const Footprint& other) {
    return one.depth < other.depth || (one.depth == other.depth && one.number < other.number);
}

// Standard deviations until an opacity has fallen to leastAlpha. `opacity` is at least that.
double reachOf(double opacity);

// A splat's covariance on the picture, in square pixels, without the blurring: xx, xy, yy.
std::array<double, 3> covariance(const SplatReader::Splat& splat, const View& view);

// Everything of `footprint` but its number and colour. False when nothing is drawn: the splat is too faint,
// or it has a value that is not finite.
bool project(const SplatReader::Splat& splat, const View& view, Footprint& footprint);

// The splat's colour for the basis that harmonics() gave for its direction.
Colour colourOf(const SplatReader::Splat& splat, const std::array<double, 15>& basis);

} // namespace Tavrin::SplatPicture
