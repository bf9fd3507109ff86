// Makes splat PLY files, from given values or random ones.
#pragma once

#include "tests/support/properties.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace support {

// One vertex record. The defaults are an ordinary splat at the origin.
struct Splat {
    std::array<float, 3> position{};
    std::array<float, 3> normal{};
    std::array<float, 3> dc{};
    std::array<float, 45> rest{};
    float opacity = 0.0f;
    std::array<float, 3> scale{};
    std::array<float, 4> rotation{1.0f, 0.0f, 0.0f, 0.0f};
};

// A whole file: header and records.
struct PlyFile {
    bool coefficients = false;              // in the records, and as properties
    std::vector<std::string> comments;      // whole header lines, after the format line
    std::optional<std::string> elementLine; // instead of "element vertex N"
    std::vector<std::string> moreElements;  // header lines after the properties
    std::vector<std::string> leftOut;       // names of properties that are not declared
    std::vector<float> records;             // one after the other

    std::size_t recordFloats() const { return floatsOf(coefficients); }
    std::size_t count() const { return records.size() / recordFloats(); }
    void add(const Splat& splat);
    std::string header() const;
    std::string bytes() const;
    void write(const std::filesystem::path& path) const;
};

// A random generator with the same numbers on every system.
class Random {
public:
    explicit Random(std::uint64_t seed) : state_(seed) {}
    std::uint64_t next();
    // In [low, high), in steps of 2^-24 of the difference.
    float between(float low, float high);

private:
    std::uint64_t state_;
};

// A splat with attributes in the ranges of trained scenes, in a box of this size around the origin.
Splat randomSplat(Random& random, float extentX, float extentY);

// A file of `count` random splats.
PlyFile randomFile(std::uint64_t seed, std::size_t count, bool coefficients, float extentX = 40.0f,
                   float extentY = 30.0f);

// A random choice of NaN, infinities, zeros of both signs, subnormals, the largest float, and ordinary
// values.
float awkwardFloat(Random& random);
Splat awkwardSplat(Random& random);

} // namespace support
