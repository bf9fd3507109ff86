#include "tests/support/plyfile.h"

#include "tests/support/files.h"

#include <algorithm>
#include <bit>
#include <limits>

namespace support {

void PlyFile::add(const Splat& splat) {
    const auto append = [this](const auto& values) {
        records.insert(records.end(), values.begin(), values.end());
    };
    append(splat.position);
    append(splat.normal);
    append(splat.dc);
    if (coefficients) {
        append(splat.rest);
    }
    records.push_back(splat.opacity);
    append(splat.scale);
    append(splat.rotation);
}

std::string PlyFile::header() const {
    std::string text = "ply\nformat binary_little_endian 1.0\n";
    for (const std::string& line : comments) {
        text += line + '\n';
    }
    text += elementLine.value_or("element vertex " + std::to_string(count())) + '\n';
    for (const std::string& name : propertyNames(coefficients)) {
        if (std::find(leftOut.begin(), leftOut.end(), name) == leftOut.end()) {
            text += "property float " + name + '\n';
        }
    }
    for (const std::string& line : moreElements) {
        text += line + '\n';
    }
    return text + "end_header\n";
}

std::string PlyFile::bytes() const {
    std::string text = header();
    return text.append(reinterpret_cast<const char*>(records.data()), records.size() * sizeof(float));
}

void PlyFile::write(const std::filesystem::path& path) const {
    writeFile(path, bytes());
}

std::uint64_t Random::next() {
    // splitmix64: a Weyl sequence through a mixing function.
    state_ += 0x9e3779b97f4a7c15;
    std::uint64_t z = state_;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
    z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
    return z ^ (z >> 31);
}

float Random::between(float low, float high) {
    const float fraction = static_cast<float>(next() >> 40) * 0x1p-24f;
    return low + fraction * (high - low);
}

Splat randomSplat(Random& random, float extentX, float extentY) {
    Splat splat;
    splat.position = {random.between(-0.5f, 0.5f) * extentX, random.between(-0.5f, 0.5f) * extentY,
                      random.between(-3.0f, 20.0f)};
    const auto fill = [&random](auto& values, float low, float high) {
        for (float& value : values) {
            value = random.between(low, high);
        }
    };
    fill(splat.normal, -1.0f, 1.0f);
    fill(splat.dc, -2.5f, 4.0f);
    fill(splat.rest, -0.9f, 0.8f);
    splat.opacity = random.between(-7.0f, 13.0f);
    fill(splat.scale, -15.0f, 5.6f);
    fill(splat.rotation, -1.3f, 1.3f);
    return splat;
}

PlyFile randomFile(std::uint64_t seed, std::size_t count, bool coefficients, float extentX, float extentY) {
    PlyFile file;
    file.coefficients = coefficients;
    file.records.reserve(count * file.recordFloats());
    Random random(seed);
    for (std::size_t i = 0; i < count; ++i) {
        file.add(randomSplat(random, extentX, extentY));
    }
    return file;
}

float awkwardFloat(Random& random) {
    using Limits = std::numeric_limits<float>;
    constexpr float kinds[] = {Limits::quiet_NaN(),
                               -Limits::quiet_NaN(),
                               Limits::infinity(),
                               -Limits::infinity(),
                               0.0f,
                               -0.0f,
                               Limits::denorm_min(),
                               -Limits::denorm_min(),
                               Limits::min(),
                               Limits::max(),
                               -Limits::max(),
                               1e-40f,
                               1e19f,
                               -1e10f,
                               88.8f,
                               -104.0f,
                               std::bit_cast<float>(0x7F800001u)}; // a signalling NaN
    const std::uint64_t draw = random.next();
    if (draw % 2 == 0) {
        return random.between(-4.0f, 4.0f);
    }
    return kinds[(draw >> 8) % std::size(kinds)];
}

Splat awkwardSplat(Random& random) {
    Splat splat;
    const auto fill = [&random](auto& values) {
        std::generate(values.begin(), values.end(), [&random] { return awkwardFloat(random); });
    };
    fill(splat.position);
    fill(splat.normal);
    fill(splat.dc);
    fill(splat.rest);
    splat.opacity = awkwardFloat(random);
    fill(splat.scale);
    fill(splat.rotation);
    return splat;
}

} // namespace support
