// Pictures of four 8-bit channels, and a measure of their difference.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace Tavrin::SplatPicture {

// A picture that cannot be made, written or read. what() is one line.
class PictureError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

using Colour = std::array<float, 3>; // red, green, blue, from 0 to 1

struct Picture {
    Picture(int pixelsAcross, int pixelsDown)
        : width(pixelsAcross), height(pixelsDown), bytes(4 * pixels()) {}

    std::size_t pixels() const { return static_cast<std::size_t>(width) * static_cast<std::size_t>(height); }

    int width;
    int height;
    // Red, green, blue, alpha; rows from the top. The colours are not multiplied by alpha.
    std::vector<std::uint8_t> bytes;
};

// Peak signal to noise ratio of the colours in decibels, infinite for equal pictures. Transparent pictures
// are compared over black and over white; the lower ratio counts. Throws PictureError for pictures of
// different sizes.
double peakSignalToNoise(const Picture& one, const Picture& other);

} // namespace Tavrin::SplatPicture
