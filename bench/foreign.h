// What the writers of other forms share.
#pragma once

#include "src/records.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace foreign {

inline constexpr std::size_t floats = Tavrin::GaussionSplat::layoutWithCoefficients.floats;
inline constexpr std::size_t colourAt = Tavrin::GaussionSplat::colourAt;
inline constexpr std::size_t restAt = Tavrin::GaussionSplat::coefficientsAt;
inline constexpr std::size_t opacityAt = Tavrin::GaussionSplat::layoutWithCoefficients.opacity;
inline constexpr std::size_t scaleAt = Tavrin::GaussionSplat::layoutWithCoefficients.scale;
inline constexpr std::size_t rotationAt = Tavrin::GaussionSplat::layoutWithCoefficients.rotation;
inline constexpr std::size_t restCount = Tavrin::GaussionSplat::coefficientFloats;
using Record = std::array<float, floats>;

template <typename Number>
void append(std::string& bytes, Number value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}

inline std::uint8_t byteOf(double value) {
    return static_cast<std::uint8_t>(std::clamp(std::round(value), 0.0, 255.0));
}

inline double alphaOf(const Record& record) {
    return 1.0 / (1.0 + std::exp(-double{record[opacityAt]}));
}

// The component of largest magnitude, and the sign and norm that make it positive and the whole one.
struct Rotation {
    std::size_t largest;
    std::array<double, 4> parts; // w x y z
};

inline Rotation rotationOf(const Record& record) {
    Rotation rotation{};
    double square = 0.0;
    for (std::size_t i = 0; i < 4; ++i) {
        rotation.parts[i] = record[rotationAt + i];
        square += rotation.parts[i] * rotation.parts[i];
        if (std::abs(rotation.parts[i]) > std::abs(rotation.parts[rotation.largest])) {
            rotation.largest = i;
        }
    }
    const double factor = std::copysign(1.0 / std::sqrt(square), rotation.parts[rotation.largest]);
    for (double& part : rotation.parts) {
        part *= factor;
    }
    return rotation;
}

// An SPZ file of version 3 (gzip) or 4 (zstd) and degree 0 or 3. Positions are within 2,048 units of the
// origin.
void writeSpz(const std::string& path, const std::vector<Record>& records, int version, int degree);

} // namespace foreign
