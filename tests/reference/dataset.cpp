#include "tests/reference/converter.h"
#include "tests/support/properties.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

namespace reference {

namespace {

template <typename Value>
void append(std::string& bytes, Value value) {
    char raw[sizeof value];
    std::memcpy(raw, &value, sizeof value);
    bytes.append(raw, sizeof value);
}

std::size_t floatsOf(const Header& header) {
    return support::floatsOf(header.coefficients);
}

// The keys of the occupied cells in the order of the files: column by column, row by row within.
template <typename Cells>
std::vector<std::uint32_t> keysInOrder(const Grid& grid, const Cells& cells) {
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

std::string pointText(const Point& v) {
    return list({v[0], v[1], v[2]});
}

std::string entry(const char* name, const std::string& min, const std::string& max, const char* end) {
    return std::string("\t\t{\n\t\t\t\"name\": \"") + name + "\",\n\t\t\t\"min\": " + min +
           ", \n\t\t\t\"max\": " + max + "\n\t\t}" + end + "\n";
}

std::string entry(const char* name, const Bounds (&range)[3], const char* end = ",") {
    return entry(name, pointText({range[0].min, range[1].min, range[2].min}),
                 pointText({range[0].max, range[1].max, range[2].max}), end);
}

std::string attributes(const Box& box, const Ranges& ranges) {
    const auto timesTen = [](const Point& v) { return pointText({v[0] * 10.0, v[1] * 10.0, v[2] * 10.0}); };
    return "[\n" + entry("position", timesTen(box.min), timesTen(box.max), ",") +
           entry("normal", ranges.normal) + entry("color", ranges.colour) +
           entry("shcoef", ranges.coefficients) +
           entry("opacity", list({ranges.opacity.min}), list({ranges.opacity.max}), ",") +
           entry("scale", ranges.scale) + entry("envnormal", ranges.normal) +
           entry("envshcoef", ranges.coefficients) + entry("envscale", ranges.scale, "") + "\t]";
}

std::string metaText(const Header& header, const Box& box, const Grid& grid, const Ranges& ranges) {
    std::string text = "{\n\t\"version\": \"4.0\",\n\t\"guid\": \"" + std::string(32, '?') +
                       "\",\n\t\"name\": \"Tavrin Splats\",\n"
                       "\t\"description\": \"Tavrin all right reserved\",\n";
    text += "\t\"source\": \"" + header.dataType + "\",\n";
    text += "\t\"dataType\": \"" + header.source + "\",\n";
    text += "\t\"totalSplats\": " + std::to_string(header.count) + ",\n\t\"totalLevel\": 1,\n";
    text += "\t\"cellLengthX\": " + number(grid.cellSizeX) + ",\n";
    text += "\t\"cellLengthY\": " + number(grid.cellSizeY) + ",\n\t\"indexDataSize\": 20,\n";
    text += "\t\"offset\": " + pointText(header.offset) + ",\n";
    text += "\t\"epsg\": " + std::to_string(header.epsg) + ",\n";
    text += "\t\"shift\": " + pointText(header.shift) + ",\n";
    text += "\t\"scale\": " + pointText(header.scale) + ",\n";
    text += "\t\"splats\": [" + std::to_string(header.count) + "],\n";
    text += "\t\"boundingBox\": {\n\t\t\"min\": " + pointText(box.min) +
            ", \n\t\t\"max\": " + pointText(box.max) + "\n\t},\n";
    text += "\t\"encoding\": \"COMPRESS\",\n";
    text += std::string("\t\"fileType\": \"") + (header.coefficients ? "Quality" : "Portable") + "\",\n";
    return text + "\t\"attributes\": " + attributes(box, ranges) + "\n}\n";
}

// The records after the header. Bytes beyond the end of the file are zeros.
std::vector<float> recordsOf(const Header& header, std::string_view file) {
    const std::size_t count = header.count > 0 ? static_cast<std::size_t>(header.count) : 0;
    std::vector<float> records(count * floatsOf(header));
    if (header.end < file.size() && !records.empty()) {
        std::memcpy(records.data(), file.data() + header.end,
                    std::min(records.size() * sizeof(float), file.size() - header.end));
    }
    return records;
}

} // namespace

Dataset convert(std::string_view file, std::int64_t countAs) {
    Header header = readHeader(file);
    const Box box = boxOf(header, file);
    std::vector<float> records = recordsOf(header, file);
    Ranges ranges = decodeBlock(records, header.coefficients);
    if (!header.coefficients) {
        std::fill_n(ranges.coefficients, 3, Bounds{0.0, 1.0});
    }
    header.count = countAs > 0 ? countAs : header.count;
    const Grid grid = gridOf(header, box);

    const bool oneCell = header.count <= 1'000'000;
    std::map<std::uint32_t, std::vector<const float*>> cells; // decoded records by key
    for (std::size_t at = 0; at < records.size(); at += floatsOf(header)) {
        const float* const record = records.data() + at;
        cells[oneCell ? 0 : cellKey(record[0], record[1], grid)].push_back(record);
    }
    const std::vector<std::uint32_t> keys =
        oneCell ? std::vector<std::uint32_t>{0} : keysInOrder(grid, cells);

    Dataset dataset;
    for (const std::uint32_t key : keys) {
        const std::vector<const float*>& members = cells[key];
        append(dataset.index, key);
        append(dataset.index, static_cast<std::uint32_t>(members.size()));
        append(dataset.index, static_cast<std::uint64_t>(dataset.data.size()));
        append(dataset.index, static_cast<std::uint32_t>(members.size() * 32));
        for (const float* const record : members) {
            const Quantised quantised = quantise(record, header.coefficients, ranges);
            dataset.data.append(quantised.data.begin(), quantised.data.end());
            if (header.coefficients) {
                dataset.coefficients.append(quantised.packed.begin(), quantised.packed.end());
            }
        }
    }
    dataset.meta = metaText(header, box, grid, ranges);
    return dataset;
}

} // namespace reference
