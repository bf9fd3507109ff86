#include "picture/picture.h"

#include <cmath>
#include <fstream>
#include <limits>
#include <stdexcept>

namespace bench {

void writePicture(const std::string& path, const Picture& picture) {
    std::ofstream file(path, std::ios::binary);
    file << "P6\n" << picture.width << " " << picture.height << "\n255\n";
    file.write(reinterpret_cast<const char*>(picture.bytes.data()),
               static_cast<std::streamsize>(picture.bytes.size()));
    file.close();
    if (!file) {
        throw std::runtime_error(path + ": the picture cannot be written");
    }
}

Picture readPicture(const std::string& path) {
    constexpr int most = 8192; // pixels on a side
    std::ifstream file(path, std::ios::binary);
    std::string form;
    int width = 0;
    int height = 0;
    int white = 0;
    file >> form >> width >> height >> white;
    file.get(); // the line feed after the header
    if (!file || form != "P6" || white != 255 || width < 1 || width > most || height < 1 || height > most) {
        throw std::runtime_error(path + ": no picture of renderscene");
    }
    Picture picture(width, height);
    file.read(reinterpret_cast<char*>(picture.bytes.data()),
              static_cast<std::streamsize>(picture.bytes.size()));
    if (!file) {
        throw std::runtime_error(path + ": the picture is cut");
    }
    return picture;
}

double peakSignalToNoise(const Picture& one, const Picture& other) {
    if (one.width != other.width || one.height != other.height) {
        throw std::runtime_error("the pictures differ in size");
    }
    double squares = 0.0;
    for (std::size_t i = 0; i < one.bytes.size(); ++i) {
        const int difference = one.bytes[i] - other.bytes[i];
        squares += static_cast<double>(difference * difference);
    }
    return squares == 0.0
               ? std::numeric_limits<double>::infinity()
               : 10.0 * std::log10(255.0 * 255.0 * static_cast<double>(one.bytes.size()) / squares);
}

} // namespace bench
