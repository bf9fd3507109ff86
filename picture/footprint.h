// The footprint of a splat: the pixels that it covers, and how opaque it is there.
#pragma once

#include "picture/camera.h"
#include "picture/picture.h"
#include "reader/dequantiser.h"

#include <cstdint>

namespace Tavrin::SplatPicture {

// A splat is not drawn where its opacity is below this: one step of an 8-bit picture.
inline constexpr float leastAlpha = 1.0f / 255.0f;

// The least variance of a footprint in every direction, in square pixels. It keeps small splats from falling
// between the centres of pixels.
inline constexpr double blurring = 0.3;

// The opacity at (dx, dy) pixels from the centre is opacity * exp(-(u * u + v * v) / 2) with
// u = (dx - slope * dy) * inverseX and v = dy * inverseY. This form of the Gaussian keeps its precision for
// long thin footprints, where the quadratic form would cancel.
struct Footprint {
    double depth = 0.0;       // the smaller depth covers the larger
    std::uint64_t number = 0; // of the splat; of two at one depth the lower number covers the other
    double x = 0.0;           // of the centre, in pixels of the picture
    double y = 0.0;
    float slope = 0.0f;    // shift to the right of a row's middle against the row above
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

// The distance, in standard deviations, at which `opacity` has fallen to leastAlpha. `opacity` must be at
// least leastAlpha.
double reachOf(double opacity);

// A splat's covariance on the picture, in square pixels, without the blurring: xx, xy, yy.
std::array<double, 3> covariance(const SplatReader::Splat& splat, const View& view);

// Sets all of `footprint` except its number and colour. False when nothing is drawn: the splat is too faint
// or has a value that is not finite.
bool project(const SplatReader::Splat& splat, const View& view, Footprint& footprint);

// The splat's colour in the direction for which harmonics() gave `basis`.
Colour colourOf(const SplatReader::Splat& splat, const std::array<double, 15>& basis);

} // namespace Tavrin::SplatPicture
