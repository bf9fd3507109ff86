#include "tests/reference/splats.h"

#include "tests/support/properties.h"

#include <cmath>
#include <cstring>

namespace reference {

namespace {

// Byte offsets within the two forms of a record.
struct Offsets {
    std::size_t size;
    std::size_t opacity;
    std::size_t scale;
    std::size_t rotation;
};
constexpr Offsets wide{
    .size = support::floatsWith * sizeof(float), .opacity = 216, .scale = 220, .rotation = 232};
constexpr Offsets narrow{
    .size = support::floatsWithout * sizeof(float), .opacity = 36, .scale = 40, .rotation = 52};
constexpr std::size_t positionOffset = 0;
constexpr std::size_t normalOffset = 12;
constexpr std::size_t colourOffset = 24;
constexpr std::size_t coefficientOffset = 36;

const Offsets& offsetsOf(bool hasCoefficients) {
    return hasCoefficients ? wide : narrow;
}

float get(const float* record, std::size_t offset, std::size_t index = 0) {
    return record[offset / 4 + index];
}

template <std::size_t Size, typename Value>
void put(std::array<std::uint8_t, Size>& bytes, std::size_t offset, Value value) {
    for (std::size_t i = 0; i < sizeof(Value); ++i) {
        bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
    }
}

template <std::size_t Size>
void putFloat(std::array<std::uint8_t, Size>& bytes, std::size_t offset, const float* value) {
    std::uint32_t bits = 0;
    std::memcpy(&bits, value, sizeof bits); // not through a float, which could change a signalling NaN
    put(bytes, offset, bits);
}

double share(float value, const Bounds& bounds) {
    return (static_cast<double>(value) - bounds.min) / (bounds.max - bounds.min);
}

std::uint16_t sixteenBits(float value, const Bounds& bounds) {
    return static_cast<std::uint16_t>(truncated(share(value, bounds) * 65535.5));
}

std::uint32_t coefficientWord(float red, float green, float blue, const Bounds (&bounds)[3]) {
    const float r = static_cast<float>(share(red, bounds[0]));
    const float g = static_cast<float>(share(green, bounds[1]));
    const float b = static_cast<float>(share(blue, bounds[2]));
    const std::uint32_t redBits = truncated(r * 2047.5f) % 2048;
    const std::uint32_t greenBits = truncated(g * 1023.5f) % 1024;
    const std::uint32_t blueBits = truncated(b * 2047.5f) % 2048;
    return blueBits * 2097152 + greenBits * 2048 + redBits;
}

} // namespace

void Ranges::widen(const float* record, bool hasCoefficients) {
    const Offsets& offsets = offsetsOf(hasCoefficients);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        position[axis].widen(get(record, positionOffset, axis));
        normal[axis].widen(get(record, normalOffset, axis));
        colour[axis].widen(get(record, colourOffset, axis));
        scale[axis].widen(get(record, offsets.scale, axis));
        for (std::size_t k = 0; hasCoefficients && k < 15; ++k) {
            coefficients[axis].widen(get(record, coefficientOffset, 15 * axis + k));
        }
    }
    opacity.widen(get(record, offsets.opacity));
}

float scale(float logScale) {
    const float e = static_cast<float>(std::exp(static_cast<double>(logScale)));
    float r = static_cast<float>(std::pow(std::fabs(static_cast<double>(e)), 0.125));
    for (int i = 0; i < 3; ++i) {
        r = r * r;
    }
    return r;
}

float colour(float coefficient) {
    float v = coefficient * 0.2820948f;
    v = v + 0.5f;
    if (v < 0.0f) {
        v = 0.0f;
    }
    if (v > 1.0f) {
        v = 1.0f;
    }
    return v;
}

float opacity(float logit) {
    const float e = static_cast<float>(std::exp(static_cast<double>(-logit)));
    const float sum = e + 1.0f;
    return 1.0f / sum;
}

std::array<float, 4> rotation(float rot0, float rot1, float rot2, float rot3) {
    std::array<float, 4> q = {rot1, rot2, rot3, rot0};
    float sum = q[0] * q[0];
    for (std::size_t i = 1; i < 4; ++i) {
        sum = sum + q[i] * q[i];
    }
    const float inv = 1.0f / std::sqrt(sum);
    for (float& component : q) {
        component = component * inv;
    }
    std::size_t m = 0;
    float best = std::fabs(q[0]);
    for (std::size_t i = 1; i < 4; ++i) {
        if (std::fabs(q[i]) > best) {
            m = i;
            best = std::fabs(q[i]);
        }
    }
    const float sign = q[m] >= 0.0f ? 1.0f : -1.0f;
    std::array<float, 4> packed{};
    std::size_t next = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        if (i == m) {
            continue;
        }
        float value = sign * q[i];
        value = value * 1.4142135f;
        value = value * 0.5f;
        packed[next++] = value + 0.5f;
    }
    packed[3] = static_cast<float>(m) / 3.0f;
    return packed;
}

void decode(float* record, bool hasCoefficients) {
    const Offsets& offsets = offsetsOf(hasCoefficients);
    float* const rot = record + offsets.rotation / 4;
    const std::array<float, 4> packed = rotation(rot[0], rot[1], rot[2], rot[3]);
    std::memcpy(rot, packed.data(), sizeof packed);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        float& s = record[offsets.scale / 4 + axis];
        s = scale(s);
        float& c = record[colourOffset / 4 + axis];
        c = colour(c);
    }
    float& o = record[offsets.opacity / 4];
    o = opacity(o);
}

Ranges decodeBlock(std::vector<float>& records, bool hasCoefficients) {
    const std::size_t stride = offsetsOf(hasCoefficients).size / 4;
    const std::size_t count = records.size() / stride;
    for (std::size_t i = 0; i < count; ++i) {
        decode(records.data() + i * stride, hasCoefficients);
    }
    Ranges ranges;
    for (std::size_t k = 0; count > 0 && k <= count; ++k) {
        ranges.widen(records.data() + (k == 0 ? 0 : k - 1) * stride, hasCoefficients);
    }
    return ranges;
}

Quantised quantise(const float* record, bool hasCoefficients, const Ranges& ranges) {
    const Offsets& offsets = offsetsOf(hasCoefficients);
    Quantised result{};
    for (std::size_t axis = 0; axis < 3; ++axis) {
        putFloat(result.data, 4 * axis, record + positionOffset / 4 + axis);
        result.data[12 + axis] =
            static_cast<std::uint8_t>(truncated(get(record, colourOffset, axis) * 255.0f));
        put(result.data, 16 + 2 * axis, sixteenBits(get(record, offsets.scale, axis), ranges.scale[axis]));
        put(result.data, 26 + 2 * axis, sixteenBits(get(record, normalOffset, axis), ranges.normal[axis]));
    }
    result.data[15] = static_cast<std::uint8_t>(truncated(get(record, offsets.opacity) * 255.0f));
    std::uint32_t word = 0;
    for (std::size_t part = 0; part < 4; ++part) {
        const float factor = part < 3 ? 1023.5f : 3.5f;
        word |= truncated(get(record, offsets.rotation, part) * factor) << (10 * part);
    }
    put(result.data, 22, word);
    for (std::size_t k = 0; hasCoefficients && k < 15; ++k) {
        put(result.packed, 4 * k,
            coefficientWord(get(record, coefficientOffset, k), get(record, coefficientOffset, 15 + k),
                            get(record, coefficientOffset, 30 + k), ranges.coefficients));
        for (std::size_t channel = 0; channel < 3; ++channel) {
            putFloat(result.raw, 12 * k + 4 * channel, record + coefficientOffset / 4 + 15 * channel + k);
        }
    }
    return result;
}

std::uint32_t truncated(double value) {
    if (!(std::fabs(value) < 0x1p63)) {
        return 0; // of -2^63, which 64 bits hold, the low bits are zeros too
    }
    const double remainder = std::fmod(std::trunc(value), 0x1p32);
    return static_cast<std::uint32_t>(remainder < 0.0 ? remainder + 0x1p32 : remainder);
}

std::uint32_t cellKey(float x, float y, const Grid& grid) {
    const float column = std::floor((x - grid.originX) / grid.cellSizeX);
    const float row = std::floor((y - grid.originY) / grid.cellSizeY);
    return truncated(column) | truncated(row) << 16;
}

} // namespace reference
