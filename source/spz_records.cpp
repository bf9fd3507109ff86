#include "source/spz_records.h"

#include "src/records.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

namespace Tavrin::SplatSource {
namespace {

using namespace GaussionSplat;

// The values of packed bytes.
struct Tables {
    std::array<float, 256> opacity; // logit
    std::array<float, 256> colour;  // f_dc
    std::array<float, 256> scale;   // natural logarithm
    // A component of a rotation of versions 3 and 4: nine bits of magnitude below one of sign.
    std::array<float, 1024> component;

    Tables() {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const double share = static_cast<double>(byte) / 255.0;
            // 0 and 255 mean exactly 0 and 1, whose logits are the infinities.
            opacity[byte] = static_cast<float>(std::log(share / (1.0 - share)));
            colour[byte] = static_cast<float>((share - 0.5) / 0.15);
            scale[byte] = static_cast<float>(byte) / 16.0f - 10.0f;
        }
        opacity[255] = std::numeric_limits<float>::infinity();
        for (std::size_t bits = 0; bits < 512; ++bits) {
            const float magnitude = static_cast<float>(bits) / 511.0f * 0.70710678f;
            component[bits] = magnitude;
            component[512 + bits] = 0.0f - magnitude;
        }
    }
};

const Tables tables;

int signed24(const std::uint8_t* bytes) {
    const std::uint32_t word = bytes[0] | bytes[1] << 8 | static_cast<std::uint32_t>(bytes[2]) << 16;
    return static_cast<int>(word << 8) >> 8;
}

// IEEE 754 half precision, exact in single.
float halfFloat(const std::uint8_t* bytes) {
    const std::uint32_t half = bytes[0] | static_cast<std::uint32_t>(bytes[1]) << 8;
    const std::uint32_t sign = (half & 0x8000) << 16;
    const std::uint32_t exponent = half >> 10 & 0x1f;
    const std::uint32_t fraction = half & 0x3ff;
    if (exponent == 0) { // zero and subnormals: a multiple of 2^-24
        const float value = static_cast<float>(fraction) * 0x1p-24f;
        return sign != 0 ? 0.0f - value : value;
    }
    const std::uint32_t wide = exponent == 0x1f ? 0xff : exponent + 112;
    return std::bit_cast<float>(sign | wide << 23 | fraction << 13);
}

// The fourth component of a unit quaternion; 0 if rounding has made the other three too long.
float remaining(float a, float b, float c) {
    return std::sqrt(std::max(0.0f, 1.0f - (a * a + b * b + c * c)));
}

// Versions 1 and 2: x, y, z as bytes.
void readRotationBytes(const std::uint8_t* bytes, float (&wxyz)[4]) {
    for (int i = 0; i < 3; ++i) {
        wxyz[1 + i] = static_cast<float>(bytes[i]) / 127.5f - 1.0f;
    }
    wxyz[0] = remaining(wxyz[1], wxyz[2], wxyz[3]);
}

// Versions 3 and 4: the three smaller components, the first of them in the highest bits, and the number of
// the one that is left out (0 x, 1 y, 2 z, 3 w).
void readRotationWord(const std::uint8_t* bytes, float (&wxyz)[4]) {
    // Places in wxyz of the three, then of the one left out.
    constexpr std::uint8_t places[4][4] = {{2, 3, 0, 1}, {1, 3, 0, 2}, {1, 2, 0, 3}, {1, 2, 3, 0}};
    std::uint32_t word;
    std::memcpy(&word, bytes, sizeof word);
    const float a = tables.component[word >> 20 & 0x3ff];
    const float b = tables.component[word >> 10 & 0x3ff];
    const float c = tables.component[word & 0x3ff];
    const std::uint8_t(&place)[4] = places[word >> 30];
    wxyz[place[0]] = a;
    wxyz[place[1]] = b;
    wxyz[place[2]] = c;
    wxyz[place[3]] = remaining(a, b, c);
}

} // namespace

SpzRecords::SpzRecords(const SpzHeader& header, const AxisTurn& turn)
    : header_(header), turn_(turn), unit_(std::ldexp(1.0f, -header.fractionBits)) {
    AxisTurn flips = turn;
    flips.isQuarterTurned = false;
    float ones[coefficientsPerChannel];
    std::fill_n(ones, coefficientsPerChannel, 1.0f);
    flips.coefficients(ones, coefficientsPerChannel);
    for (std::size_t i = 0; i < mostKept; ++i) {
        signs_[i] = ones[i / 3] < 0.0f ? -1 : 0;
    }
}

void SpzRecords::decodePosition(const std::uint8_t* bytes, float (&xyz)[3]) const {
    for (int axis = 0; axis < 3; ++axis) {
        // Exact, because 24 bits fit single precision and the unit is a power of two.
        xyz[axis] = header_.version == 1 ? halfFloat(bytes + 2 * axis)
                                         : static_cast<float>(signed24(bytes + 3 * axis)) * unit_;
    }
    turn_.position(xyz);
}

void SpzRecords::decodePositions(const std::uint8_t* bytes, std::uint64_t count, double* positions) const {
    const std::uint64_t splatBytes = header_.bytesOf(SpzArray::positions);
    for (std::uint64_t i = 0; i < count; ++i) {
        float xyz[3];
        decodePosition(bytes + i * splatBytes, xyz);
        std::copy_n(xyz, 3, positions + 3 * i);
    }
}

void SpzRecords::decodeRotation(const std::uint8_t* bytes, float (&wxyz)[4]) const {
    if (header_.version <= 2) {
        readRotationBytes(bytes, wxyz);
    } else {
        readRotationWord(bytes, wxyz);
    }
    turn_.rotation(wxyz);
}

void SpzRecords::decode(const std::uint8_t* bytes, std::uint64_t count, float* records) const {
    const bool hasCoefficients = header_.degree > 0;
    const RecordLayout& layout = recordLayout(hasCoefficients);
    const std::uint8_t* arrays[spzArrays];
    std::uint64_t splatBytes[spzArrays];
    for (int i = 0; i < spzArrays; ++i) {
        splatBytes[i] = header_.bytesOf(SpzArray{i});
        arrays[i] = bytes;
        bytes += count * splatBytes[i];
    }
    const auto valueOf = [&](SpzArray array, std::uint64_t splat) {
        const auto i = static_cast<std::size_t>(array);
        return arrays[i] + splat * splatBytes[i];
    };
    for (std::uint64_t i = 0; i < count; ++i, records += layout.floats) {
        float xyz[3];
        decodePosition(valueOf(SpzArray::positions, i), xyz);
        float wxyz[4];
        decodeRotation(valueOf(SpzArray::rotations, i), wxyz);
        const std::uint8_t* const colours = valueOf(SpzArray::colours, i);
        const std::uint8_t* const scales = valueOf(SpzArray::scales, i);
        std::copy_n(xyz, 3, records + positionAt);
        std::fill_n(records + normalAt, 3, 0.0f);
        for (std::size_t axis = 0; axis < 3; ++axis) {
            records[colourAt + axis] = tables.colour[colours[axis]];
            records[layout.scale + axis] = tables.scale[scales[axis]];
        }
        if (hasCoefficients) {
            decodeCoefficients(valueOf(SpzArray::coefficients, i), records + coefficientsAt);
        }
        records[layout.opacity] = tables.opacity[*valueOf(SpzArray::opacities, i)];
        std::copy_n(wxyz, 4, records + layout.rotation);
    }
}

void SpzRecords::decodeCoefficients(const std::uint8_t* bytes, float* coefficients) const {
    if (header_.degree == 1) {
        turnCoefficients<3>(bytes, coefficients);
    } else if (header_.degree == 2) {
        turnCoefficients<8>(bytes, coefficients);
    } else {
        turnCoefficients<15>(bytes, coefficients);
    }
}

// In the file, red, green and blue of a coefficient are adjacent. Records hold one channel after the other.
// Signs change while the values are integers, so that no negative zero arises.
template <std::size_t kept>
void SpzRecords::turnCoefficients(const std::uint8_t* bytes, float* coefficients) const {
    float values[3 * kept];
    for (std::size_t i = 0; i < 3 * kept; ++i) {
        const std::int32_t value = (std::int32_t{bytes[i]} - 128) ^ signs_[i];
        values[i] = static_cast<float>(value - signs_[i]) * (1.0f / 128.0f);
    }
    if constexpr (kept < coefficientsPerChannel) {
        std::fill_n(coefficients, coefficientFloats, 0.0f);
    }
    for (std::size_t channel = 0; channel < 3; ++channel) {
        float* const to = coefficients + channel * coefficientsPerChannel;
        for (std::size_t k = 0; k < kept; ++k) {
            to[k] = values[3 * k + channel];
        }
        if (turn_.isQuarterTurned) {
            AxisTurn{.isQuarterTurned = true}.coefficients(to, static_cast<int>(kept));
        }
    }
}

} // namespace Tavrin::SplatSource
