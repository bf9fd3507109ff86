// docs/format.md states the format for readers in other languages. These tests compare its tables with the
// reader's constants and check its worked example.
#include "reader/dequantiser.h"
#include "reader/format.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace Tavrin::SplatReader;
using Row = std::vector<std::string>;

std::string document() {
    const std::filesystem::path path = std::filesystem::path(PLYCONVERT_SOURCE_FOLDER) / "docs" / "format.md";
    std::ifstream file(path);
    EXPECT_TRUE(file.is_open()) << path;
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" `\"");
    const std::size_t last = text.find_last_not_of(" `\"");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

// The body rows of the table after the mark.
std::vector<Row> table(const std::string& name) {
    std::istringstream lines(document());
    std::string line;
    while (std::getline(lines, line) && line != "<!-- table: " + name + " -->") {
    }
    std::vector<Row> rows;
    while (std::getline(lines, line) && line.starts_with("|")) {
        Row row;
        std::istringstream cells(line.substr(1));
        for (std::string cell; std::getline(cells, cell, '|');) {
            row.push_back(trimmed(cell));
        }
        rows.push_back(row);
    }
    EXPECT_GT(rows.size(), 2u) << name;
    return rows.size() < 2 ? std::vector<Row>{} : std::vector<Row>(rows.begin() + 2, rows.end());
}

// Byte width of "f32", "u16 × 3" and the like.
std::size_t width(const std::string& type) {
    std::istringstream words(type.substr(1));
    std::size_t bits = 0;
    words >> bits;
    std::string times;
    std::size_t count = 1;
    if (words >> times) {
        words >> count;
    }
    return bits / 8 * count;
}

// The last number of a text such as "trunc(red × 255)".
double lastNumber(const std::string& text) {
    const std::size_t end = text.find_last_of("0123456789") + 1;
    const std::size_t start = text.find_last_not_of("0123456789.", end - 1) + 1;
    return std::stod(text.substr(start, end - start));
}

void expectGapFree(const std::vector<Row>& rows, std::size_t size) {
    std::size_t next = 0;
    for (const Row& row : rows) {
        EXPECT_EQ(std::stoul(row[0]), next) << row[2];
        next += width(row[1]);
    }
    EXPECT_EQ(next, size);
}

TEST(FormatDocument, DataRecord) {
    const std::vector<Row> rows = table("record");
    expectGapFree(rows, Format::recordSize);
    std::map<std::string, std::size_t> at;
    for (const Row& row : rows) {
        at[row[2]] = std::stoul(row[0]);
    }
    EXPECT_EQ(at.at("x"), Format::positionOffset);
    EXPECT_EQ(at.at("red"), Format::colourOffset);
    EXPECT_EQ(at.at("opacity"), Format::opacityOffset);
    EXPECT_EQ(at.at("scale x"), Format::scaleOffset);
    EXPECT_EQ(at.at("rotation"), Format::rotationOffset);
    EXPECT_EQ(at.at("normal x"), Format::normalOffset);
}

TEST(FormatDocument, CoefficientRecords) {
    const std::vector<Row> packed = table("packed");
    expectGapFree(packed, Format::packedCoefficientSize);
    EXPECT_EQ(std::stoul(packed.at(1)[0]), Format::packedPaddingOffset);
    const std::vector<Row> raw = table("raw");
    expectGapFree(raw, Format::rawCoefficientSize);
    EXPECT_EQ(std::stoul(raw.at(1)[0]), Format::rawPaddingOffset);
}

// "11–20" as first bit and largest value.
std::pair<unsigned, std::uint32_t> bits(const std::string& text) {
    const unsigned first = static_cast<unsigned>(std::stoul(text));
    const auto last = static_cast<unsigned>(lastNumber(text));
    return {first, static_cast<std::uint32_t>((std::uint64_t{1} << (last - first + 1)) - 1)};
}

TEST(FormatDocument, CoefficientWord) {
    const std::vector<Row> rows = table("word");
    ASSERT_EQ(rows.size(), 3u);
    for (std::size_t channel = 0; channel < 3; ++channel) {
        const auto [first, maximum] = bits(rows[channel][0]);
        const CoefficientWord word = unpackCoefficientWord(maximum << first);
        for (std::size_t other = 0; other < 3; ++other) {
            EXPECT_EQ(word.channel[other], other == channel ? maximum : 0u);
        }
        EXPECT_EQ(maximum, channel == 1 ? Format::greenMaximum : Format::redBlueMaximum);
        EXPECT_EQ(lastNumber(rows[channel][2]), channel == 1 ? Format::greenFactor : Format::redBlueFactor);
    }
}

TEST(FormatDocument, RotationWord) {
    const std::vector<Row> rows = table("rotation");
    ASSERT_EQ(rows.size(), 4u);
    for (std::size_t part = 0; part < 3; ++part) {
        const auto [first, maximum] = bits(rows[part][0]);
        EXPECT_EQ(maximum, Format::rotationMaximum);
        EXPECT_EQ(unpackRotationWord(maximum << first).component[part], maximum);
        EXPECT_EQ(lastNumber(rows[part][2]), Format::rotationFactor);
    }
    EXPECT_EQ(unpackRotationWord(3u << bits(rows[3][0]).first).largest, 3u);
}

TEST(FormatDocument, IndexEntry) {
    const std::vector<Row> rows = table("index");
    ASSERT_EQ(rows.size(), 4u);
    EXPECT_EQ(rows[1][0], "4 + 16 L");
    EXPECT_EQ(std::stoul(rows[1][0]), Format::indexKeySize);
    EXPECT_EQ(width(rows[0][1]), Format::indexKeySize);
    EXPECT_EQ(width(rows[1][1]) + width(rows[2][1]) + width(rows[3][1]), Format::indexLevelSize);
    EXPECT_EQ(rows[2][0], "8 + 16 L");
    EXPECT_EQ(rows[3][0], "16 + 16 L");
}

TEST(FormatDocument, MetaKeysAndAttributes) {
    const std::vector<Row> keys = table("meta");
    ASSERT_EQ(keys.size(), Format::metaKeys.size());
    for (std::size_t i = 0; i < keys.size(); ++i) {
        EXPECT_EQ(keys[i][0], Format::metaKeys[i]);
    }
    EXPECT_EQ(keys[0][2], Format::version);
    EXPECT_EQ(keys[2][2], Format::name);
    EXPECT_EQ(keys[3][2], Format::description);
    const std::vector<Row> attributes = table("attributes");
    ASSERT_EQ(attributes.size(), Format::attributeNames.size());
    for (std::size_t i = 0; i < attributes.size(); ++i) {
        EXPECT_EQ(attributes[i][0], Format::attributeNames[i]);
        EXPECT_EQ(attributes[i][1], attributes[i][0] == "opacity" ? "1" : "3");
        const std::size_t original = Format::attributeRepeats[i];
        if (original != i) {
            EXPECT_EQ(attributes[i][2], "repeats `" + std::string(Format::attributeNames[original]));
        }
    }
}

TEST(FormatDocument, Quantisers) {
    const std::map<std::string, std::pair<double, std::uint32_t>> expected = {
        {"scale", {Format::wordFactor, Format::wordMaximum}},
        {"normal", {Format::wordFactor, Format::wordMaximum}},
        {"coefficient red", {Format::redBlueFactor, Format::redBlueMaximum}},
        {"coefficient green", {Format::greenFactor, Format::greenMaximum}},
        {"coefficient blue", {Format::redBlueFactor, Format::redBlueMaximum}},
        {"rotation part", {Format::rotationFactor, Format::rotationMaximum}},
        {"colour", {Format::byteFactor, Format::byteMaximum}},
        {"opacity", {Format::byteFactor, Format::byteMaximum}}};
    const std::vector<Row> rows = table("quantisers");
    EXPECT_EQ(rows.size(), expected.size());
    for (const Row& row : rows) {
        const auto& [factor, maximum] = expected.at(row[0]);
        EXPECT_EQ(std::stod(row[1]), factor) << row[0];
        EXPECT_EQ(std::stoul(row[2]), maximum) << row[0];
    }
}

TEST(FormatDocument, OtherNumbers) {
    const std::string text = document();
    EXPECT_NE(text.find("With at most 1,000,000 splats"), std::string::npos);
    EXPECT_EQ(Format::oneCellMaximum, 1'000'000u);
    EXPECT_NE(text.find("f_dc × 0.2820948 + 0.5"), std::string::npos);
    EXPECT_EQ(Format::colourGain, 0.2820948f);
    EXPECT_NE(text.find("v = c × 1.4142135 × 0.5 + 0.5"), std::string::npos);
    EXPECT_EQ(Format::rotationGain, 1.4142135 * 0.5);
    EXPECT_NE(text.find("the bounding box **times ten**"), std::string::npos);
    EXPECT_EQ(Format::positionRangeFactor, 10.0);
}

// The hexadecimal bytes after the example's mark.
std::vector<std::byte> exampleRecord() {
    const std::string text = document();
    std::istringstream bytes(text.substr(text.find("<!-- example: record -->") + 24));
    std::vector<std::byte> record;
    for (std::string byte; record.size() < Format::recordSize && bytes >> byte;) {
        record.push_back(static_cast<std::byte>(std::stoul(byte, nullptr, 16)));
    }
    return record;
}

// The number at the end of a cell, after its "=" if it has one, with the document's minus sign.
double shownValue(std::string cell) {
    const std::size_t equals = cell.find_last_of('=');
    cell = equals == std::string::npos ? cell : cell.substr(equals + 1);
    const bool negative = cell.find("−") != std::string::npos;
    return lastNumber(cell) * (negative ? -1.0 : 1.0);
}

TEST(FormatDocument, WorkedExample) {
    Meta meta;
    meta.encoding = "COMPRESS";
    meta.attributes[1] = {{-1, -1, -1}, {1, 1, 1}, 3};
    meta.attributes[2] = {{0, 0, 0}, {1, 1, 1}, 3};
    meta.attributes[3] = {{-0.5, -0.5, -0.5}, {0.5, 0.5, 0.5}, 3};
    meta.attributes[4] = {{0, 0, 0}, {1, 0, 0}, 1};
    meta.attributes[5] = {{0.01, 0.01, 0.01}, {0.51, 0.51, 0.51}, 3};
    const Dequantiser back(meta);
    const std::vector<std::byte> bytes = exampleRecord();
    ASSERT_EQ(bytes.size(), Format::recordSize);
    const Record record = loadRecord(bytes.data());
    const Splat splat = back.splat(record);
    EXPECT_EQ(splat.position, (std::array<float, 3>{1.0f, -2.5f, 0.5f}));
    EXPECT_EQ(record.rotation, 0xDFF7FDFFu);
    EXPECT_NEAR(splat.rotation[0], 1.0, 1e-6);
    const std::map<std::string, std::pair<unsigned, double>> values = {
        {"red", {record.colour[0], splat.colour[0]}},      {"green", {record.colour[1], splat.colour[1]}},
        {"blue", {record.colour[2], splat.colour[2]}},     {"opacity", {record.opacity, splat.opacity}},
        {"scale x", {record.scale[0], splat.scale[0]}},    {"scale y", {record.scale[1], splat.scale[1]}},
        {"scale z", {record.scale[2], splat.scale[2]}},    {"normal x", {record.normal[0], splat.normal[0]}},
        {"normal y", {record.normal[1], splat.normal[1]}}, {"normal z", {record.normal[2], splat.normal[2]}}};
    std::size_t compared = 0;
    for (const Row& row : table("example")) {
        if (row[0] == "rotation") {
            EXPECT_NE(row[2].find("= −0.000345,"), std::string::npos);
            EXPECT_NEAR(splat.rotation[1], -0.000345, 1e-6);
        } else if (values.contains(row[0])) {
            const auto& [stored, value] = values.at(row[0]);
            EXPECT_EQ(std::stoul(row[1]), stored) << row[0];
            EXPECT_NEAR(shownValue(row[2]), value, 1e-6) << row[0];
            ++compared;
        }
    }
    EXPECT_EQ(compared, values.size());
    const CoefficientWord word = unpackCoefficientWord(0x80000400u);
    EXPECT_NEAR(back.coefficient(0, word.channel[0]), 0.000366, 1e-6);
    EXPECT_NEAR(back.coefficient(1, word.channel[1]), -0.499511, 1e-6);
    EXPECT_NEAR(back.coefficient(2, word.channel[2]), 0.000366, 1e-6);
}

} // namespace
