// The pixel grid of a georeferenced picture.
#pragma once

#include <cstdint>

namespace Tavrin::SplatPicture {

// A rectangle on the ground, in world coordinates. Empty until it is widened.
struct Box {
    double minX = 0.0;
    double minY = 0.0;
    double maxX = -1.0;
    double maxY = -1.0;

    bool isEmpty() const { return minX > maxX || minY > maxY; }
    void widen(const Box& other);
};

// Pixels of one size that cover a box. Their edges lie on whole multiples of the size in world coordinates,
// so that all pictures of one pixel size share one grid.
struct PixelGrid {
    double pixel = 1.0;      // width and height of a pixel, in units of the world
    std::int64_t column = 0; // the left edge is at column * pixel
    std::int64_t row = 0;    // the upper edge is at row * pixel
    int width = 0;           // pixels
    int height = 0;

    double left() const { return static_cast<double>(column) * pixel; }
    double top() const { return static_cast<double>(row) * pixel; }
};

inline constexpr int mostPixels = 65536; // of a side

// The grid of pixels of size `pixel` that covers the box and `margin` pixels around it. An edge within a
// millionth of a pixel of a grid line counts as on it. Throws PictureError when a side has more than
// mostPixels, or the pixels are too small for double precision.
PixelGrid gridOfPixel(const Box& box, double pixel, double margin);

// The same with the smallest pixels for which the longer side has at most `size` pixels; `size` is at least
// 2.
PixelGrid gridOfSize(const Box& box, int size, double margin);

} // namespace Tavrin::SplatPicture
