#include "program/scene/scene_record.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Tavrin::SplatProgram {
namespace {

namespace Format = SplatReader::Format;

constexpr float surelyOpaque = 100.0f;
constexpr float surelyNoScale = -104.0f;

float finite(double value) {
    constexpr double most = std::numeric_limits<float>::max();
    return std::isnan(value) ? 0.0f : static_cast<float>(std::clamp(value, -most, most));
}

// The positions, in (w, x, y, z), of the three packed parts and of the dropped component.
struct Places {
    std::array<std::size_t, 3> others{};
    std::size_t largest = 0;
};

Places placesOf(std::uint32_t word) {
    const std::size_t dropped = SplatReader::unpackRotationWord(word).largest; // among (x, y, z, w)
    Places places;
    places.largest = (dropped + 1) % 4;
    std::size_t next = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        if (i != dropped) {
            places.others[next++] = (i + 1) % 4;
        }
    }
    return places;
}

} // namespace

float colourProperty(double colour) {
    auto property = finite((colour - 0.5) / static_cast<double>(Format::colourGain));
    while (colour >= 1.0 && property * Format::colourGain + 0.5f < 1.0f) {
        property = std::nextafter(property, 2.0f);
    }
    return property;
}

float opacityProperty(double opacity) {
    if (opacity <= 0.0 || opacity >= 1.0) {
        return opacity <= 0.0 ? -surelyOpaque : surelyOpaque;
    }
    return finite(std::log(opacity / (1.0 - opacity)));
}

float scaleProperty(double scale) {
    return scale > 0.0 ? std::max(surelyNoScale, finite(std::log(scale))) : surelyNoScale;
}

std::array<float, 4> rotationProperties(std::uint32_t word) {
    std::array<double, 4> q = SplatReader::unpackRotation(word);
    const Places places = placesOf(word);
    // The other components become smaller by this factor, which is more than the rounding of single
    // precision.
    constexpr double margin = 1.0 - 1e-6;
    // Each round adds at least one component to the group of equals, so three are enough.
    for (int round = 0; round < 3 && SplatReader::rotationPossible(word); ++round) {
        double rest = 0.0;
        double equals = 1.0;
        for (const std::size_t place : places.others) {
            const bool over = std::fabs(q[place]) > q[places.largest] * margin;
            equals += over ? 1.0 : 0.0;
            rest += over ? 0.0 : q[place] * q[place];
        }
        if (equals == 1.0) {
            break;
        }
        const double common = std::sqrt((1.0 - rest) / equals);
        for (const std::size_t place : places.others) {
            if (std::fabs(q[place]) > q[places.largest] * margin) {
                q[place] = std::copysign(common * margin * margin, q[place]);
            }
        }
        double squares = 0.0;
        for (const std::size_t place : places.others) {
            squares += q[place] * q[place];
        }
        q[places.largest] = std::sqrt(1.0 - squares);
    }
    return {finite(q[0]), finite(q[1]), finite(q[2]), finite(q[3])};
}

void fillRecord(const SplatReader::Splat& splat, const SplatReader::Record& stored, bool hasCoefficients,
                VertexRecord& record) {
    float* next = record.data();
    next = std::copy(splat.position.begin(), splat.position.end(), next);
    for (const double normal : splat.normal) {
        *next++ = finite(normal);
    }
    for (const double colour : splat.colour) {
        *next++ = colourProperty(colour);
    }
    for (std::size_t i = 0; hasCoefficients && i < splat.coefficients.size(); ++i) {
        *next++ = finite(splat.coefficients[i]);
    }
    *next++ = opacityProperty(splat.opacity);
    for (const double scale : splat.scale) {
        *next++ = scaleProperty(scale);
    }
    const std::array<float, 4> rotation = rotationProperties(stored.rotation);
    std::copy(rotation.begin(), rotation.end(), next);
}

} // namespace Tavrin::SplatProgram
