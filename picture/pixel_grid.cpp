#include "picture/pixel_grid.h"

#include "picture/picture.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>

namespace Tavrin::SplatPicture {
namespace {

constexpr double slack = 1e-6; // of a pixel

// Beyond this a double no longer has fractions of a pixel.
constexpr double farthest = 0x1p50;

std::string textOf(double value) {
    char text[32];
    return {text, std::to_chars(text, text + sizeof text, value).ptr};
}

double below(double edge) {
    const double nearest = std::round(edge);
    return std::fabs(edge - nearest) <= slack ? nearest : std::floor(edge);
}

double above(double edge) {
    return -below(-edge);
}

struct Sides {
    double left;
    double right;
    double bottom;
    double top;

    double width() const { return std::max(1.0, right - left); }
    double height() const { return std::max(1.0, top - bottom); }
    double longer() const { return std::max(width(), height()); }
};

Sides sidesOf(const Box& box, double pixel, double margin) {
    return {below(box.minX / pixel - margin), above(box.maxX / pixel + margin),
            below(box.minY / pixel - margin), above(box.maxY / pixel + margin)};
}

} // namespace

void Box::widen(const Box& other) {
    if (other.isEmpty()) {
        return;
    }
    if (isEmpty()) {
        *this = other;
        return;
    }
    minX = std::min(minX, other.minX);
    minY = std::min(minY, other.minY);
    maxX = std::max(maxX, other.maxX);
    maxY = std::max(maxY, other.maxY);
}

PixelGrid gridOfPixel(const Box& box, double pixel, double margin) {
    const Sides sides = sidesOf(box, pixel, margin);
    const double most = std::max(
        {std::fabs(sides.left), std::fabs(sides.right), std::fabs(sides.bottom), std::fabs(sides.top)});
    if (!(most < farthest)) {
        throw PictureError("a pixel of " + textOf(pixel) +
                           " units is too small for the coordinates: choose larger pixels");
    }
    if (sides.longer() > mostPixels) {
        throw PictureError("a pixel of " + textOf(pixel) + " units makes a picture of " +
                           textOf(sides.width()) + " x " + textOf(sides.height()) +
                           " pixels, and a side has at most " + std::to_string(mostPixels) +
                           ": choose larger pixels or a smaller box");
    }
    PixelGrid grid;
    grid.pixel = pixel;
    grid.column = static_cast<std::int64_t>(sides.left);
    grid.row = static_cast<std::int64_t>(sides.bottom + sides.height());
    grid.width = static_cast<int>(sides.width());
    grid.height = static_cast<int>(sides.height());
    return grid;
}

PixelGrid gridOfSize(const Box& box, int size, double margin) {
    const double extent = std::max(box.maxX - box.minX, box.maxY - box.minY);
    // A single point gets a small extent.
    double fits = (extent > 0.0 ? extent : 1e-3) / size;
    // If the edges lie on grid lines, rounding adds no pixel.
    if (sidesOf(box, fits, margin).longer() <= size) {
        return gridOfPixel(box, fits, margin);
    }
    while (sidesOf(box, fits, margin).longer() > size) {
        fits *= 2.0;
    }
    double tooSmall = fits / 2.0;
    // Bisects until the sides differ by far less than a pixel.
    for (int step = 0; step < 60 && tooSmall < fits; ++step) {
        const double middle = 0.5 * (tooSmall + fits);
        (sidesOf(box, middle, margin).longer() > size ? tooSmall : fits) = middle;
    }
    return gridOfPixel(box, fits, margin);
}

} // namespace Tavrin::SplatPicture
