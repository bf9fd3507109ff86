#include "tests/support/expected_values.h"

#include "tests/support/properties.h"
#include "tests/support/sha256.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace support {
namespace {

using nlohmann::json;
using Tavrin::SplatSource::Source;

constexpr int keptPerChannel = 15;

double numberOf(const json& value) {
    if (value.is_string()) {
        const std::string text = value;
        const double size = text.ends_with("inf") ? std::numeric_limits<double>::infinity()
                                                  : std::numeric_limits<double>::quiet_NaN();
        return text.starts_with('-') ? -size : size;
    }
    return value;
}

// The float of a canonical record that holds a column; nothing for coefficients that a dataset does not keep.
std::optional<std::size_t> placeOf(const std::string& column, const Source& source, int perChannel) {
    const std::size_t behind = source.hasCoefficients ? 54 : 9;
    const auto number = [&](const char* prefix) {
        return static_cast<std::size_t>(std::stoi(column.substr(std::strlen(prefix))));
    };
    if (column.size() == 1) {
        return static_cast<std::size_t>(column[0] - 'x');
    }
    if (column.starts_with("f_dc_")) {
        return 6 + number("f_dc_");
    }
    if (column.starts_with("f_rest_")) {
        const int j = static_cast<int>(number("f_rest_"));
        const int k = j % perChannel;
        return k < keptPerChannel ? std::optional<std::size_t>(9 + j / perChannel * keptPerChannel + k)
                                  : std::nullopt;
    }
    if (column == "opacity") {
        return behind;
    }
    if (column.starts_with("scale_")) {
        return behind + 1 + number("scale_");
    }
    EXPECT_TRUE(column.starts_with("rot_")) << column;
    return behind + 4 + number("rot_");
}

struct Table {
    std::size_t floats;
    std::vector<float> records;

    float at(std::size_t record, std::size_t place) const { return records[record * floats + place]; }
    std::size_t size() const { return records.size() / floats; }
};

Table readAll(const Source& source) {
    Table table{.floats = support::floatsOf(source.hasCoefficients), .records = {}};
    table.records.resize(source.count * table.floats);
    constexpr std::uint64_t part = 1000; // records a call, so that several calls are needed
    std::uint64_t given = 0;
    for (std::uint64_t first = 0; first < source.count; first += part) {
        given += source.read(first, std::min(part, source.count - first),
                             table.records.data() + given * table.floats);
    }
    table.records.resize(given * table.floats);
    return table;
}

bool isNear(double value, double expected, double tolerance) {
    if (std::isnan(expected)) {
        return std::isnan(value);
    }
    if (std::isinf(expected)) {
        return value == expected;
    }
    return std::abs(value - expected) <= tolerance * std::max(1.0, std::abs(expected));
}

// Some documents have logits of -40 and 40 for opacities of 0 and 1, and say so in their note.
double opacityOf(double value, const json& document) {
    const bool isBounded = document.value("note", "").find("-40 and 40") != std::string::npos;
    return isBounded && std::isinf(value) ? std::copysign(40.0, value) : value;
}

void expectRows(const Table& table, const json& document,
                const std::vector<std::optional<std::size_t>>& places, const char* key, double tolerance) {
    const json& rows = document.at(key);
    const std::size_t first = std::string(key) == "last" ? table.size() - rows.size() : 0;
    for (std::size_t row = 0; row < rows.size(); ++row) {
        for (std::size_t column = 0; column < places.size(); ++column) {
            if (!places[column]) {
                continue;
            }
            const std::string name = document.at("columns")[column];
            const double expected = numberOf(rows[row][column]);
            double value = table.at(first + row, *places[column]);
            if (name == "opacity") {
                value = opacityOf(value, document);
            }
            if (name == "scale_2" && std::isnan(expected)) {
                continue; // a column that the file does not have
            }
            EXPECT_TRUE(isNear(value, expected, tolerance))
                << key << " " << row << " " << name << ": " << value << ", expected " << expected;
        }
    }
}

void expectColumn(const Table& table, const json& document, std::size_t column, std::size_t place,
                  double tolerance) {
    const std::string name = document.at("columns")[column];
    double least = std::numeric_limits<double>::infinity();
    double greatest = -least;
    double sum = 0.0;
    std::size_t finite = 0;
    for (std::size_t i = 0; i < table.size(); ++i) {
        const double value = name == "opacity" ? opacityOf(table.at(i, place), document) : table.at(i, place);
        if (std::isfinite(value)) {
            least = std::min(least, value);
            greatest = std::max(greatest, value);
            sum += value;
            ++finite;
        }
    }
    const std::size_t notFinite = document.at("non_finite")[column];
    if (notFinite == table.size()) {
        return;
    }
    EXPECT_EQ(table.size() - finite, notFinite) << name;
    EXPECT_TRUE(isNear(least, numberOf(document.at("min")[column]), tolerance)) << name << " min " << least;
    EXPECT_TRUE(isNear(greatest, numberOf(document.at("max")[column]), tolerance))
        << name << " max " << greatest;
    EXPECT_TRUE(isNear(sum / static_cast<double>(finite), numberOf(document.at("mean")[column]), tolerance))
        << name << " mean " << sum / static_cast<double>(finite);
}

// The hash of some columns of all splats as 32-bit floats, without negative zeros.
std::string hashOf(const Table& table, const std::vector<std::size_t>& places) {
    std::string bytes;
    for (std::size_t i = 0; i < table.size(); ++i) {
        for (const std::size_t place : places) {
            const float value = table.at(i, place) + 0.0f;
            bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
        }
    }
    return sha256(bytes);
}

void expectHashes(const Table& table, const json& document, const Source& source, int perChannel,
                  bool areCoefficientsExact) {
    if (!document.contains("sha256_f32le")) {
        return;
    }
    for (const auto& [columns, hash] : document.at("sha256_f32le").items()) {
        std::vector<std::size_t> places;
        bool isKept = columns != "f_rest" || areCoefficientsExact;
        for (const std::string name : document.at("columns")) {
            const bool isWanted = (columns == "positions" && name.size() == 1) ||
                                  (columns == "scales" && name.starts_with("scale_")) ||
                                  (columns == "f_rest" && name.starts_with("f_rest_"));
            if (isWanted) {
                const auto place = placeOf(name, source, perChannel);
                isKept = isKept && place.has_value();
                places.push_back(place.value_or(0));
            }
        }
        if (isKept) {
            EXPECT_EQ(hashOf(table, places), hash.get<std::string>()) << columns;
        }
    }
}

} // namespace

void expectValues(const Source& source, const std::filesystem::path& expected, double tolerance,
                  bool areCoefficientsExact) {
    SCOPED_TRACE(expected.filename().string());
    std::ifstream stream(expected);
    const json document = json::parse(stream);
    const int degree = document.at("sh_degree");
    const int perChannel = (degree + 1) * (degree + 1) - 1;
    ASSERT_EQ(source.count, document.at("count").get<std::uint64_t>());
    ASSERT_EQ(source.hasCoefficients, degree > 0);
    const Table table = readAll(source);
    ASSERT_EQ(table.size(), source.count);
    std::vector<std::optional<std::size_t>> places;
    for (const std::string name : document.at("columns")) {
        places.push_back(placeOf(name, source, perChannel));
    }
    expectRows(table, document, places, "first", tolerance);
    expectRows(table, document, places, "last", tolerance);
    for (std::size_t column = 0; column < places.size(); ++column) {
        if (places[column]) {
            expectColumn(table, document, column, *places[column], tolerance);
        }
    }
    expectHashes(table, document, source, perChannel, areCoefficientsExact);
}

} // namespace support
