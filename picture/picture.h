// Pictures of three 8-bit channels, and how far two of them differ.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace bench {

struct Picture {
    Picture(int pixelsAcross, int pixelsDown)
        : width(pixelsAcross), height(pixelsDown), bytes(3 * pixels()) {}

    std::size_t pixels() const { return static_cast<std::size_t>(width) * static_cast<std::size_t>(height); }

    int width;
    int height;
    std::vector<unsigned char> bytes; // red, green, blue; rows from the top
};

// Binary PPM. Throws std::runtime_error when the file cannot be written.
void writePicture(const std::string& path, const Picture& picture);

// Reads what writePicture wrote. Throws std::runtime_error for anything else.
Picture readPicture(const std::string& path);

// Peak signal to noise ratio in decibels, infinite for equal pictures. Throws std::runtime_error for pictures
// of different sizes.
double peakSignalToNoise(const Picture& one, const Picture& other);

} // namespace bench
