// Seeded scenes for tests, benchmarks and the quick start: a small town as a trainer would write it.
//
// A scene is a function of its options alone. Every splat is computed from the seed and its own index with
// integer arithmetic, the four basic operations and square roots of IEEE doubles, so that the same options
// give the same bytes with every compiler and on every system.
#pragma once

#include "src/records.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace scenes {

// The order of the splats in the file.
enum class Order {
    shuffled, // random, as after a training run
    grouped,  // surface by surface: the ground first, then each object
};

// A position, a direction or a colour: x y z, or red green blue.
struct Point {
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
};

struct SceneOptions {
    std::uint64_t splats = 1'200'000;
    std::uint64_t seed = 1;
    bool coefficients = true; // the splats have f_rest properties
    double extentX = 250.0;   // metres; the x of two or more splats span exactly this
    double extentY = 200.0; // metres, the same for y; the longer of the two is at most 200 times the shorter
    Point centre;           // of the ground rectangle, metres; z is the lowest possible ground
    Order order = Order::shuffled;
    bool normals = false;      // true: unit normals of the surfaces; false: zeros, as trainers write them
    bool statedBounds = false; // "comment minx" to "comment maxz" with the exact box of the splats

    // Further comment lines, in this order, each only when it is set. Numbers are printed as shortest text.
    std::string source;   // one word
    std::string dataType; // one word
    std::optional<std::int32_t> epsg;
    std::optional<Point> offset;
    std::optional<Point> shift;
    std::optional<Point> scale;
    std::vector<std::string> comments; // whole lines without "comment " and without a line end
};

// The box of the splats' positions. All zeros for a scene without splats.
struct Box {
    std::array<float, 3> min{};
    std::array<float, 3> max{};
};

// Floats in a record, in the order of SplatSource::recordProperties.
inline std::size_t recordFloats(bool coefficients) {
    return Tavrin::GaussionSplat::recordLayout(coefficients).floats;
}

// Writes the scene as a binary little-endian PLY file, replacing the file. Memory stays below 40 MiB,
// whatever the number of splats. Returns the box of the splats.
// Throws std::invalid_argument for options that no scene has, std::runtime_error when writing fails.
Box writeScene(const std::filesystem::path& path, const SceneOptions& options);

// The records that writeScene puts after the header, in the same order. Throws std::invalid_argument.
std::vector<float> sceneRecords(const SceneOptions& options);

// The header that writeScene puts before them, "end_header" and its line feed included; `bounds` is used
// when options.statedBounds is set. Its length depends on the options alone. Throws std::invalid_argument.
std::string sceneHeader(const SceneOptions& options, const Box& bounds);

// The box of adjacent records of `floatsPerRecord` floats each, which begin with the position.
Box boxOf(std::span<const float> records, std::size_t floatsPerRecord);

} // namespace scenes
