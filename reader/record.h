// One record of data.bin and of shcoef.bin, as stored.
#pragma once

#include "reader/format.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Tavrin::SplatReader {

// Little-endian fields at any alignment.
template <typename Unsigned>
Unsigned loadUnsigned(const std::byte* at) {
    Unsigned value = 0;
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(&value, at, sizeof value);
    } else {
        for (std::size_t i = sizeof(Unsigned); i-- > 0;) {
            value = static_cast<Unsigned>((static_cast<std::uint64_t>(value) << 8) |
                                          std::to_integer<std::uint64_t>(at[i]));
        }
    }
    return value;
}

inline float loadFloat(const std::byte* at) {
    const std::uint32_t bits = loadUnsigned<std::uint32_t>(at);
    float value = 0.0f;
    static_assert(sizeof value == sizeof bits);
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

struct Record {
    std::array<float, 3> position{};
    std::array<std::uint8_t, 3> colour{};
    std::uint8_t opacity = 0;
    std::array<std::uint16_t, 3> scale{};
    std::uint32_t rotation = 0;
    std::array<std::uint16_t, 3> normal{};
};

// `at` points to Format::recordSize bytes.
inline Record loadRecord(const std::byte* at) {
    Record record;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        record.position[axis] = loadFloat(at + Format::positionOffset + 4 * axis);
        record.colour[axis] = std::to_integer<std::uint8_t>(at[Format::colourOffset + axis]);
        record.scale[axis] = loadUnsigned<std::uint16_t>(at + Format::scaleOffset + 2 * axis);
        record.normal[axis] = loadUnsigned<std::uint16_t>(at + Format::normalOffset + 2 * axis);
    }
    record.opacity = std::to_integer<std::uint8_t>(at[Format::opacityOffset]);
    record.rotation = loadUnsigned<std::uint32_t>(at + Format::rotationOffset);
    return record;
}

// The three quantised values of one packed coefficient word: red, green, blue.
struct CoefficientWord {
    std::array<std::uint32_t, 3> channel;
};

inline CoefficientWord unpackCoefficientWord(std::uint32_t word) {
    return {{word & 0x7FFu, (word >> 11) & 0x3FFu, word >> 21}};
}

// The rotation word: three quantised components in the order that skips the largest, and the index of the
// largest among (rot_1, rot_2, rot_3, rot_0).
struct RotationWord {
    std::array<std::uint32_t, 3> component;
    std::uint32_t largest;
};

inline RotationWord unpackRotationWord(std::uint32_t word) {
    return {{word & 0x3FFu, (word >> 10) & 0x3FFu, (word >> 20) & 0x3FFu}, word >> 30};
}

} // namespace Tavrin::SplatReader
