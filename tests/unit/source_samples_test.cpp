// PLY files of other programs with their expected values: 42 unusual ones that are read, and broken ones that
// are refused. They are not part of the project. If their folder is missing, the tests are skipped and say
// so.

#include "source/open.h"
#include "source/ply.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <limits>
#include <map>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace Tavrin;
using nlohmann::json;
using SplatSource::Input;

const fs::path formats = fs::path(PLYCONVERT_SAMPLES) / "formats";

double numberOf(const json& value) {
    if (value.is_number()) {
        return value.get<double>();
    }
    const auto text = value.get<std::string>();
    return text == "inf"    ? std::numeric_limits<double>::infinity()
           : text == "-inf" ? -std::numeric_limits<double>::infinity()
                            : std::numeric_limits<double>::quiet_NaN();
}

// Offsets in the canonical record by column name.
std::map<std::string, std::size_t> placesOf(bool hasCoefficients, std::size_t coefficients) {
    const GaussionSplat::RecordLayout& layout = GaussionSplat::recordLayout(hasCoefficients);
    std::map<std::string, std::size_t> places = {{"x", 0}, {"y", 1}, {"z", 2}, {"opacity", layout.opacity}};
    for (std::size_t i = 0; i < 3; ++i) {
        places["f_dc_" + std::to_string(i)] = GaussionSplat::colourAt + i;
        places["scale_" + std::to_string(i)] = layout.scale + i;
    }
    for (std::size_t i = 0; i < 4; ++i) {
        places["rot_" + std::to_string(i)] = layout.rotation + i;
    }
    const std::size_t perChannel = coefficients / 3;
    for (std::size_t i = 0; i < coefficients; ++i) {
        if (i % perChannel < 15) {
            places["f_rest_" + std::to_string(i)] =
                GaussionSplat::coefficientsAt + i / perChannel * 15 + i % perChannel;
        }
    }
    return places;
}

struct Read {
    std::vector<float> records;
    std::vector<double> positions;
    std::size_t floats = 0;
};

Read readAll(const Input& input) {
    Read read;
    read.floats = GaussionSplat::recordLayout(input.hasCoefficients).floats;
    read.records.resize(input.count * read.floats);
    read.positions.resize(input.count * 3);
    input.readWide(0, input.count, read.records.data(), read.positions.data());
    return read;
}

// Compares one value with the expected one, which is nan for a column that the file does not have.
void compare(const Read& read, std::uint64_t record, std::size_t place, double expected, bool isMissing) {
    const float found = read.records[record * read.floats + place];
    if (isMissing) {
        EXPECT_TRUE(std::isfinite(found) && found < -10.0f) << found;
    } else if (std::isnan(expected)) {
        EXPECT_TRUE(std::isnan(found)) << found;
    } else {
        EXPECT_EQ(found, static_cast<float>(expected)) << "record " << record << ", float " << place;
    }
    if (place < 3 && !std::isnan(expected)) {
        EXPECT_EQ(read.positions[3 * record + place], expected) << "record " << record;
    }
}

void compareFile(const fs::path& path, const json& held) {
    SplatSource::OpenOptions options;
    options.threads = 2;
    const auto input = SplatSource::openSource(path, options);
    ASSERT_EQ(input->count, held.at("count").get<std::uint64_t>());
    EXPECT_EQ(input->degree, std::min(held.at("sh_degree").get<int>(), 3));
    if (input->count == 0) {
        return;
    }
    const Read read = readAll(*input);
    const auto columns = held.at("columns").get<std::vector<std::string>>();
    const auto isRest = [](const std::string& name) { return name.starts_with("f_rest_"); };
    const auto coefficients = static_cast<std::size_t>(std::ranges::count_if(columns, isRest));
    const auto places = placesOf(input->hasCoefficients, coefficients);
    for (std::size_t column = 0; column < columns.size(); ++column) {
        const auto place = places.find(columns[column]);
        if (place == places.end()) {
            continue; // of degree 4
        }
        SCOPED_TRACE(columns[column]);
        const bool isMissing = held.at("non_finite")[column] == input->count && columns[column] == "scale_2";
        const json& first = held.at("first");
        for (std::size_t i = 0; i < first.size(); ++i) {
            compare(read, i, place->second, numberOf(first[i][column]), isMissing);
        }
        const json& last = held.at("last");
        for (std::size_t i = 0; i < last.size(); ++i) {
            compare(read, input->count - last.size() + i, place->second, numberOf(last[i][column]),
                    isMissing);
        }
        float smallest = std::numeric_limits<float>::infinity();
        float largest = -smallest;
        for (std::uint64_t i = 0; i < input->count; ++i) {
            const float value = read.records[i * read.floats + place->second];
            smallest = std::isfinite(value) ? std::min(smallest, value) : smallest;
            largest = std::isfinite(value) ? std::max(largest, value) : largest;
        }
        if (!isMissing) {
            EXPECT_EQ(smallest, static_cast<float>(numberOf(held.at("min")[column])));
            EXPECT_EQ(largest, static_cast<float>(numberOf(held.at("max")[column])));
        }
    }
}

TEST(PlySamples, EveryOddFileHoldsWhatStandsBesideIt) {
    if (!fs::exists(formats)) {
        GTEST_SKIP() << formats << " is not there";
    }
    std::size_t files = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(formats / "ply")) {
        if (entry.path().extension() != ".ply") {
            continue;
        }
        SCOPED_TRACE(entry.path().filename().string());
        ++files;
        compareFile(entry.path(), json::parse(support::readFile(entry.path().string() + ".json")));
    }
    EXPECT_EQ(files, 42u);
}

// The error message of reading the whole file; empty if that succeeds.
std::string refusalOf(const fs::path& path, std::vector<std::string>& remarks) {
    try {
        const auto input = SplatSource::openSource(path, SplatSource::OpenOptions());
        readAll(*input);
        remarks = input->remarks;
    } catch (const SplatSource::SourceError& error) {
        return error.what();
    }
    return {};
}

TEST(PlySamples, EveryBrokenFileEndsAsAdvised) {
    if (!fs::exists(formats)) {
        GTEST_SKIP() << formats << " is not there";
    }
    std::size_t files = 0;
    for (const json& broken : json::parse(support::readFile(formats / "broken" / "expected.json"))) {
        const auto name = broken.at("file").get<std::string>();
        if (!name.starts_with("ply_")) {
            continue;
        }
        SCOPED_TRACE(name);
        ++files;
        std::vector<std::string> remarks;
        const fs::path path = formats / "broken" / name;
        const std::string refusal = refusalOf(path, remarks);
        if (broken.at("advice") != "refuse") {
            EXPECT_EQ(refusal, "");
            EXPECT_FALSE(remarks.empty()) << "a warning";
            continue;
        }
        EXPECT_TRUE(refusal.starts_with(path.string() + ":")) << refusal;
        EXPECT_EQ(refusal.find('\n'), std::string::npos);
        RecordProperty(name, refusal);
        if (std::getenv("PLYCONVERT_SHOW") != nullptr) {
            std::cout << refusal.substr(path.parent_path().string().size() + 1) << "\n";
        }
    }
    EXPECT_EQ(files, 50u);
}

} // namespace
