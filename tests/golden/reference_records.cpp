#include "tests/golden/reference.h"

#include <cmath>
#include <cstring>

namespace reference {

namespace {

// Elementary functions: the double result, rounded once.
float exponential(float x) {
    return static_cast<float>(std::exp(static_cast<double>(x)));
}

float eighthRoot(float x) {
    return static_cast<float>(std::sqrt(std::sqrt(std::sqrt(static_cast<double>(x)))));
}

// Toward zero into 64 bits, of which the caller keeps the low ones; 0 for what no integer holds.
std::uint64_t bitsOf(double value) {
    const double whole = std::trunc(value);
    if (std::isfinite(whole) && whole >= -0x1p63 && whole < 0x1p63) {
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(whole));
    }
    return 0;
}

std::array<float, 4> packedRotation(const float* rot) {
    std::array<float, 4> q{rot[1], rot[2], rot[3], rot[0]};
    float sum = q[0] * q[0];
    for (std::size_t i = 1; i < 4; ++i) {
        sum = sum + q[i] * q[i];
    }
    const float inverse = 1.0f / std::sqrt(sum);
    for (float& component : q) {
        component = component * inverse;
    }
    std::size_t largest = 0;
    float best = std::fabs(q[0]);
    for (std::size_t i = 1; i < 4; ++i) {
        if (std::fabs(q[i]) > best) {
            best = std::fabs(q[i]);
            largest = i;
        }
    }
    const float sign = q[largest] >= 0.0f ? 1.0f : -1.0f;
    std::array<float, 4> packed{};
    std::size_t next = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        if (i != largest) {
            packed[next] = sign * q[i] * 1.4142135f * 0.5f + 0.5f;
            ++next;
        }
    }
    packed[3] = static_cast<float>(largest) / 3.0f;
    return packed;
}

float decodedScale(float logScale) {
    float value = eighthRoot(std::fabs(exponential(logScale)));
    for (int i = 0; i < 3; ++i) {
        value = value * value;
    }
    return value;
}

float decodedColour(float coefficient) {
    const float value = coefficient * 0.2820948f + 0.5f;
    if (value < 0.0f) {
        return 0.0f;
    }
    if (value > 1.0f) {
        return 1.0f;
    }
    return value;
}

Splat decodeRecord(const std::array<float, 62>& record, bool coefficients) {
    Splat splat;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        splat.position[axis] = record[axis];
        splat.normal[axis] = record[3 + axis];
        splat.colour[axis] = decodedColour(record[6 + axis]);
    }
    std::size_t next = 9;
    if (coefficients) {
        for (float& value : splat.rest) {
            value = record[next];
            ++next;
        }
    }
    splat.opacity = 1.0f / (exponential(-record[next]) + 1.0f);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        splat.scale[axis] = decodedScale(record[next + 1 + axis]);
    }
    splat.rotation = packedRotation(&record[next + 4]);
    return splat;
}

void includeSplat(Ranges& ranges, const Splat& splat, bool coefficients) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        ranges.normal.include(axis, splat.normal[axis]);
        ranges.colour.include(axis, splat.colour[axis]);
        ranges.scale.include(axis, splat.scale[axis]);
    }
    ranges.opacity.include(0, splat.opacity);
    for (std::size_t i = 0; coefficients && i < 45; ++i) {
        ranges.coefficients.include(i / 15, splat.rest[i]);
    }
}

template <typename Value>
void append(std::string& bytes, Value value) {
    char raw[sizeof value];
    std::memcpy(raw, &value, sizeof value);
    bytes.append(raw, sizeof value);
}

double place(float value, const Range& range, std::size_t axis) {
    return (static_cast<double>(value) - range.min[axis]) / (range.max[axis] - range.min[axis]);
}

std::uint16_t wordOf(float value, const Range& range, std::size_t axis) {
    return static_cast<std::uint16_t>(bitsOf(place(value, range, axis) * 65535.5));
}

std::uint32_t scaled(float value, float factor) {
    return static_cast<std::uint32_t>(bitsOf(value * factor));
}

} // namespace

void Range::include(std::size_t axis, double value) {
    if (min[axis] > value) {
        min[axis] = value;
    }
    if (value > max[axis]) {
        max[axis] = value;
    }
}

std::vector<Splat> decode(const Header& header, std::string_view file, Ranges& ranges) {
    const std::uint64_t size = header.coefficients ? 248 : 68;
    std::vector<Splat> splats;
    for (std::int64_t i = 0; i < header.count; ++i) {
        std::array<float, 62> record{};
        const std::uint64_t at = header.end + static_cast<std::uint64_t>(i) * size;
        if (at < file.size()) {
            std::memcpy(record.data(), file.data() + at, std::min<std::uint64_t>(size, file.size() - at));
        }
        splats.push_back(decodeRecord(record, header.coefficients));
        includeSplat(ranges, splats.back(), header.coefficients);
    }
    if (!header.coefficients) {
        ranges.coefficients.min = {0.0, 0.0, 0.0};
        ranges.coefficients.max = {1.0, 1.0, 1.0};
    }
    return splats;
}

std::string dataRecord(const Splat& splat, const Ranges& ranges) {
    std::string bytes;
    for (const float coordinate : splat.position) {
        append(bytes, coordinate);
    }
    for (const float channel : splat.colour) {
        append(bytes, static_cast<std::uint8_t>(scaled(channel, 255.0f)));
    }
    append(bytes, static_cast<std::uint8_t>(scaled(splat.opacity, 255.0f)));
    for (std::size_t axis = 0; axis < 3; ++axis) {
        append(bytes, wordOf(splat.scale[axis], ranges.scale, axis));
    }
    append(bytes, scaled(splat.rotation[0], 1023.5f) | scaled(splat.rotation[1], 1023.5f) << 10 |
                      scaled(splat.rotation[2], 1023.5f) << 20 | scaled(splat.rotation[3], 3.5f) << 30);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        append(bytes, wordOf(splat.normal[axis], ranges.normal, axis));
    }
    return bytes;
}

std::string coefficientRecord(const Splat& splat, const Ranges& ranges) {
    std::string bytes;
    for (std::size_t k = 0; k < 15; ++k) {
        const auto red = static_cast<float>(place(splat.rest[k], ranges.coefficients, 0));
        const auto green = static_cast<float>(place(splat.rest[15 + k], ranges.coefficients, 1));
        const auto blue = static_cast<float>(place(splat.rest[30 + k], ranges.coefficients, 2));
        append(bytes, (scaled(blue, 2047.5f) & 2047u) << 21 | (scaled(green, 1023.5f) & 1023u) << 11 |
                          (scaled(red, 2047.5f) & 2047u));
    }
    append(bytes, std::uint32_t{0});
    return bytes;
}

} // namespace reference
