#include "picture/picture.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Tavrin::SplatPicture {
namespace {

// The mean square of the differences of the colours, over a grey background of this byte.
double meanSquare(const Picture& one, const Picture& other, double ground) {
    const auto laid = [ground](const std::uint8_t* pixel, std::size_t channel) {
        const double alpha = pixel[3] / 255.0;
        return alpha * pixel[channel] + (1.0 - alpha) * ground;
    };
    double squares = 0.0;
    for (std::size_t i = 0; i < one.bytes.size(); i += 4) {
        for (std::size_t channel = 0; channel < 3; ++channel) {
            const double difference = laid(&one.bytes[i], channel) - laid(&other.bytes[i], channel);
            squares += difference * difference;
        }
    }
    return squares / (3.0 * static_cast<double>(one.pixels()));
}

} // namespace

double peakSignalToNoise(const Picture& one, const Picture& other) {
    if (one.width != other.width || one.height != other.height) {
        throw PictureError("the pictures differ in size");
    }
    const double mean = std::max(meanSquare(one, other, 0.0), meanSquare(one, other, 255.0));
    return mean == 0.0 ? std::numeric_limits<double>::infinity() : 10.0 * std::log10(255.0 * 255.0 / mean);
}

} // namespace Tavrin::SplatPicture
