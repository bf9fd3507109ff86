#include "scenes/scenes.h"

#include "scenes/splat.h"
#include "source/record_properties.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <fstream>
#include <stdexcept>

namespace scenes {

namespace {

static_assert(std::endian::native == std::endian::little, "records are written as they stand in memory");

constexpr std::uint64_t splatsInBlock = 16'384; // 4 MiB of records with coefficients
constexpr double largestCoordinate = 1.0e9;     // metres
constexpr double smallestExtent = 0.001;        // metres

void require(bool condition, const std::string& message) {
    if (!condition) {
        throw std::invalid_argument(message);
    }
}

bool inside(double v) {
    return std::fabs(v) <= largestCoordinate; // false for NaN
}

void checkWord(const std::string& word, const char* name) {
    require(word.find_first_of(" \t\r\n\v\f") == std::string::npos,
            std::string(name) + " must be one word: a header comment has three words");
}

void checkOptions(const SceneOptions& options) {
    for (const double extent : {options.extentX, options.extentY}) {
        require(extent >= smallestExtent && inside(extent), "extents must be between 0.001 and 1e9 metres");
    }
    require(inside(options.centre.x) && inside(options.centre.y) && inside(options.centre.z),
            "the centre must lie within 1e9 metres of the origin");
    const double longer = std::max(options.extentX, options.extentY);
    require(longer <= 200.0 * std::min(options.extentX, options.extentY),
            "the longer extent must be at most 200 times the shorter");
    require(options.splats <= (std::uint64_t{1} << 40), "more splats than any file holds");
    checkWord(options.source, "source");
    checkWord(options.dataType, "dataType");
    for (const std::string& line : options.comments) {
        require(line.find_first_of("\r\n") == std::string::npos, "a comment must be one line");
    }
}

// The shortest decimal text that reads back as the same number.
template <class Number>
std::string shortest(Number v) {
    std::array<char, 64> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size(), v);
    return {text.data(), end.ptr};
}

// A bound as text of 24 characters, whatever its value, so that the header can be written before the bounds
// are known. Ten digits before the point hold 1e9; at least twelve after it hold a float of a nanometre, the
// smallest position other than 0, to nine digits when it has one digit before the point.
std::string fixedWidth(float v) {
    constexpr int width = 24;
    std::array<char, 64> text{};
    const auto whole = std::to_chars(text.data(), text.data() + text.size(),
                                     std::trunc(static_cast<double>(v)), std::chars_format::fixed, 0);
    const int before =
        static_cast<int>(whole.ptr - text.data()) + (v < 0.0f && v > -1.0f && text[0] != '-' ? 1 : 0);
    const auto end = std::to_chars(text.data(), text.data() + text.size(), static_cast<double>(v),
                                   std::chars_format::fixed, width - 1 - before);
    return {text.data(), end.ptr};
}

void addPoint(std::string& header, const char* name, const std::optional<Point>& value) {
    if (!value) {
        return;
    }
    const std::array<double, 3> v{value->x, value->y, value->z};
    for (std::size_t axis = 0; axis < 3; ++axis) {
        header += std::string("comment ") + name + "xyz"[axis] + " " + shortest(v[axis]) + "\n";
    }
}

void widen(Box& bounds, const float* position, bool first) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        bounds.min[axis] = first ? position[axis] : std::min(bounds.min[axis], position[axis]);
        bounds.max[axis] = first ? position[axis] : std::max(bounds.max[axis], position[axis]);
    }
}

void requireGood(const std::ofstream& file, const std::filesystem::path& path) {
    if (!file) {
        throw std::runtime_error("cannot write the scene to " + path.string());
    }
}

} // namespace

std::string sceneHeader(const SceneOptions& options, const Box& bounds) {
    checkOptions(options);
    std::string header = "ply\nformat binary_little_endian 1.0\n";
    if (!options.source.empty()) {
        header += "comment source " + options.source + "\n";
    }
    if (!options.dataType.empty()) {
        header += "comment dataType " + options.dataType + "\n";
    }
    if (options.epsg) {
        header += "comment epsg " + std::to_string(*options.epsg) + "\n";
    }
    addPoint(header, "offset", options.offset);
    addPoint(header, "shift", options.shift);
    addPoint(header, "scale", options.scale);
    if (options.statedBounds) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            header += std::string("comment min") + "xyz"[axis] + " " + fixedWidth(bounds.min[axis]) + "\n";
        }
        for (std::size_t axis = 0; axis < 3; ++axis) {
            header += std::string("comment max") + "xyz"[axis] + " " + fixedWidth(bounds.max[axis]) + "\n";
        }
    }
    for (const std::string& line : options.comments) {
        header += "comment " + line + "\n";
    }
    header += "element vertex " + std::to_string(options.splats) + "\n";
    for (const std::string& name : Tavrin::SplatSource::recordProperties(options.coefficients)) {
        header += "property float " + name + "\n";
    }
    return header + "end_header\n";
}

Box writeScene(const std::filesystem::path& path, const SceneOptions& options) {
    const std::string placeholder = sceneHeader(options, Box{});
    const SplatSource source(options);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    requireGood(file, path);
    file.write(placeholder.data(), static_cast<std::streamsize>(placeholder.size()));

    const std::size_t floats = recordFloats(options.coefficients);
    std::vector<float> block(static_cast<std::size_t>(std::min(splatsInBlock, options.splats)) * floats);
    Box bounds;
    for (std::uint64_t first = 0; first < options.splats; first += splatsInBlock) {
        const std::uint64_t count = std::min(splatsInBlock, options.splats - first);
        for (std::uint64_t k = 0; k < count; ++k) {
            float* record = block.data() + k * floats;
            source.splat(first + k, record);
            widen(bounds, record, first + k == 0);
        }
        file.write(reinterpret_cast<const char*>(block.data()),
                   static_cast<std::streamsize>(count * floats * sizeof(float)));
        requireGood(file, path);
    }
    const std::string header = sceneHeader(options, bounds);
    file.seekp(0);
    file.write(header.data(), static_cast<std::streamsize>(header.size()));
    file.close();
    requireGood(file, path);
    return bounds;
}

std::vector<float> sceneRecords(const SceneOptions& options) {
    checkOptions(options);
    const SplatSource source(options);
    const std::size_t floats = recordFloats(options.coefficients);
    std::vector<float> records(static_cast<std::size_t>(options.splats) * floats);
    for (std::uint64_t index = 0; index < options.splats; ++index) {
        source.splat(index, records.data() + index * floats);
    }
    return records;
}

Box boxOf(std::span<const float> records, std::size_t floatsPerRecord) {
    Box bounds;
    for (std::size_t at = 0; at < records.size(); at += floatsPerRecord) {
        widen(bounds, records.data() + at, at == 0);
    }
    return bounds;
}

} // namespace scenes
