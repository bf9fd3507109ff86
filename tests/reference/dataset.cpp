#include "tests/golden/reference.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>

namespace reference {

namespace {

template <typename Value>
void append(std::string& bytes, Value value) {
    char raw[sizeof value];
    std::memcpy(raw, &value, sizeof value);
    bytes.append(raw, sizeof value);
}

// The low 32 bits of a float's floor; 0 for what no 64-bit integer holds.
std::uint32_t floorBits(float value) {
    const float floor = std::floor(value);
    if (std::isfinite(floor) && std::fabs(floor) < 0x1p63f) {
        return static_cast<std::uint32_t>(static_cast<std::int64_t>(floor));
    }
    return 0;
}

std::uint32_t keyOf(const Splat& splat, const Grid& grid) {
    const float column = (splat.position[0] - grid.originX) / grid.cellX;
    const float row = (splat.position[1] - grid.originY) / grid.cellY;
    return floorBits(column) | floorBits(row) << 16;
}

// The keys in the order of the files: columns outside, rows inside, occupied cells alone.
std::vector<std::uint32_t> keysInOrder(const Grid& grid,
                                       const std::map<std::uint32_t, std::vector<std::size_t>>& cells) {
    std::vector<std::uint32_t> keys;
    for (std::int32_t column = 0; column < grid.columns; ++column) {
        for (std::int32_t row = 0; row < grid.rows; ++row) {
            const std::uint32_t key = static_cast<std::uint32_t>(column) | static_cast<std::uint32_t>(row)
                                                                               << 16;
            if (cells.contains(key)) {
                keys.push_back(key);
            }
        }
    }
    return keys;
}

std::string number(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

std::string list(const std::vector<double>& values) {
    std::string text;
    for (const double value : values) {
        text += text.empty() ? "[" : ", ";
        text += number(value);
    }
    return text + "]";
}

std::string triple(const Vector& v) {
    return list({v[0], v[1], v[2]});
}

std::string entry(const char* name, const std::string& min, const std::string& max, const char* end) {
    return std::string("\t\t{\n\t\t\t\"name\": \"") + name + "\",\n\t\t\t\"min\": " + min +
           ", \n\t\t\t\"max\": " + max + "\n\t\t}" + end + "\n";
}

std::string entry(const char* name, const Range& range, const char* end = ",") {
    return entry(name, triple(range.min), triple(range.max), end);
}

std::string attributes(const Box& box, const Ranges& ranges) {
    const auto timesTen = [](const Vector& v) { return triple({v[0] * 10.0, v[1] * 10.0, v[2] * 10.0}); };
    return "[\n" + entry("position", timesTen(box.min), timesTen(box.max), ",") +
           entry("normal", ranges.normal) + entry("color", ranges.colour) +
           entry("shcoef", ranges.coefficients) +
           entry("opacity", list({ranges.opacity.min[0]}), list({ranges.opacity.max[0]}), ",") +
           entry("scale", ranges.scale) + entry("envnormal", ranges.normal) +
           entry("envshcoef", ranges.coefficients) + entry("envscale", ranges.scale, "") + "\t]";
}

} // namespace

std::string metaText(const Header& header, const Box& box, const Grid& grid, const Ranges& ranges) {
    std::string text = "{\n\t\"version\": \"4.0\",\n\t\"guid\": \"" + std::string(32, '?') +
                       "\",\n\t\"name\": \"Tavrin Splats\",\n"
                       "\t\"description\": \"Tavrin all right reserved\",\n";
    text += "\t\"source\": \"" + header.dataType + "\",\n";
    text += "\t\"dataType\": \"" + header.source + "\",\n";
    text += "\t\"totalSplats\": " + std::to_string(header.count) + ",\n\t\"totalLevel\": 1,\n";
    text += "\t\"cellLengthX\": " + number(grid.cellX) + ",\n";
    text += "\t\"cellLengthY\": " + number(grid.cellY) + ",\n\t\"indexDataSize\": 20,\n";
    text += "\t\"offset\": " + triple(header.offset) + ",\n";
    text += "\t\"epsg\": " + std::to_string(header.epsg) + ",\n";
    text += "\t\"shift\": " + triple(header.shift) + ",\n";
    text += "\t\"scale\": " + triple(header.scale) + ",\n";
    text += "\t\"splats\": [" + std::to_string(header.count) + "],\n";
    text += "\t\"boundingBox\": {\n\t\t\"min\": " + triple(box.min) + ", \n\t\t\"max\": " + triple(box.max) +
            "\n\t},\n";
    text += "\t\"encoding\": \"COMPRESS\",\n";
    text += std::string("\t\"fileType\": \"") + (header.coefficients ? "Quality" : "Portable") + "\",\n";
    return text + "\t\"attributes\": " + attributes(box, ranges) + "\n}\n";
}

Dataset convert(std::string_view file, std::int64_t countAs) {
    Header header = readHeader(file);
    const Box box = boxOf(header, file);
    Ranges ranges;
    const std::vector<Splat> splats = decode(header, file, ranges);
    header.count = countAs > 0 ? countAs : header.count;
    const Grid grid = gridOf(header, box);

    const bool oneCell = header.count <= 1'000'000;
    std::map<std::uint32_t, std::vector<std::size_t>> cells; // numbers of splats by key
    for (std::size_t i = 0; i < splats.size(); ++i) {
        cells[oneCell ? 0 : keyOf(splats[i], grid)].push_back(i);
    }
    const std::vector<std::uint32_t> keys =
        oneCell ? std::vector<std::uint32_t>{0} : keysInOrder(grid, cells);

    Dataset dataset;
    for (const std::uint32_t key : keys) {
        const std::vector<std::size_t>& members = cells[key];
        append(dataset.index, key);
        append(dataset.index, static_cast<std::uint32_t>(members.size()));
        append(dataset.index, static_cast<std::uint64_t>(dataset.data.size()));
        append(dataset.index, static_cast<std::uint32_t>(members.size() * 32));
        for (const std::size_t i : members) {
            dataset.data += dataRecord(splats[i], ranges);
            if (header.coefficients) {
                dataset.coefficients += coefficientRecord(splats[i], ranges);
            }
        }
    }
    dataset.meta = metaText(header, box, grid, ranges);
    return dataset;
}

} // namespace reference
