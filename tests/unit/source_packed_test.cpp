// Packed splats, SPZ and compressed PLY: files of other programs with their expected values, and damaged
// files. They are not part of the project. If their folder is missing, the tests are skipped and say so. The
// CMake variable PLYCONVERT_SAMPLES names the folder.

#include "source/compressed_ply.h"
#include "source/open.h"
#include "source/ply_layout.h"
#include "source/spz.h"
#include "tests/support/expected_values.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace Tavrin::SplatSource;

const fs::path formats = fs::path(PLYCONVERT_SAMPLES) / "formats";

std::vector<std::string> filesOf(const char* folder, const std::string& prefix, const std::string& ending) {
    std::vector<std::string> names;
    if (fs::exists(formats / folder)) {
        for (const fs::directory_entry& entry : fs::directory_iterator(formats / folder)) {
            const std::string name = entry.path().filename().string();
            if (name.starts_with(prefix) && name.ends_with(ending)) {
                names.push_back(name);
            }
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::unique_ptr<Source> openSpz(const fs::path& path, InputAxes axes = InputAxes::stated) {
    return std::make_unique<SpzInput>(path, axes, fs::temp_directory_path());
}

std::unique_ptr<Source> openCompressed(const fs::path& path) {
    const std::string bytes = support::readFile(path);
    return std::make_unique<CompressedPlyInput>(path, parsePlyHeader(bytes, path.filename().string()));
}

// The error message of opening a file and reading all of it; empty if that succeeds.
template <typename Open>
std::string failureOf(Open open) {
    try {
        const std::unique_ptr<Source> source = open();
        std::vector<float> records(source->count * Tavrin::GaussionSplat::layoutWithCoefficients.floats);
        source->read(0, source->count, records.data());
        return {};
    } catch (const SourceError& error) {
        return error.what();
    }
}

// SPZ version 4 needs zstd, which cross-builds do not have: they refuse such a file with that reason.
bool hasZstd() {
    return failureOf([] { return openSpz(formats / "spz" / "camera512_d3_v4.spz"); }).empty();
}

struct Packed : testing::Test {
    void SetUp() override {
        if (!fs::exists(formats)) {
            GTEST_SKIP() << "no sample files at " << formats;
        }
    }
};

TEST_F(Packed, SpzFilesHaveTheirValues) {
    const std::vector<std::string> names = filesOf("spz", "", ".spz");
    ASSERT_EQ(names.size(), 60u);
    const bool readsVersion4 = hasZstd();
    for (const std::string& name : names) {
        if (!readsVersion4 && support::readFile(formats / "spz" / name).starts_with("NGSP")) {
            const std::string message = failureOf([&] { return openSpz(formats / "spz" / name); });
            EXPECT_NE(message.find("needs zstd"), std::string::npos) << message;
            continue;
        }
        // This file does not say that its axes were not converted.
        const InputAxes axes = name.find("unconverted_axes") != std::string::npos ? InputAxes::rightDownFront
                                                                                  : InputAxes::stated;
        const bool isQuarterTurned = name.find("rfu") != std::string::npos;
        support::expectValues(*openSpz(formats / "spz" / name, axes), formats / "spz" / (name + ".json"),
                              1e-5, !isQuarterTurned);
    }
}

TEST_F(Packed, HeadersSayWhatTheFilesHold) {
    for (const char* const folder : {"spz", "compressed_ply"}) {
        const bool isSpz = std::string(folder) == "spz";
        for (const std::string& name : filesOf(folder, "", isSpz ? ".spz" : ".ply")) {
            const fs::path path = formats / folder / name;
            const std::unique_ptr<Input> header = openHeader(path);
            std::unique_ptr<Source> whole;
            if (failureOf([&] { return isSpz ? openSpz(path) : openCompressed(path); }).empty()) {
                whole = isSpz ? openSpz(path) : openCompressed(path);
                EXPECT_EQ(header->count, whole->count) << name;
                EXPECT_EQ(header->hasCoefficients, whole->hasCoefficients) << name;
            }
            EXPECT_GE(header->scratchBytes, isSpz ? 16 * header->count : 0u) << name;
            EXPECT_LE(header->scratchBytes, isSpz ? 92 * header->count : 0u) << name;
        }
    }
}

TEST_F(Packed, CompressedPlyFilesHaveTheirValues) {
    const std::vector<std::string> names = filesOf("compressed_ply", "", ".ply");
    ASSERT_EQ(names.size(), 13u);
    for (const std::string& name : names) {
        support::expectValues(*openCompressed(formats / "compressed_ply" / name),
                              formats / "compressed_ply" / (name + ".json"), 1e-5);
    }
}

TEST_F(Packed, DamagedSpzFilesAreRefusedInOneLine) {
    // Rounding can make the squares of three components sum to more than 1. The fourth component is then 0.
    const std::set<std::string> sound = {"spz_v3_rotation_over_unit.spz"};
    const std::vector<std::string> names = filesOf("broken", "spz_", ".spz");
    ASSERT_EQ(names.size(), 44u);
    for (const std::string& name : names) {
        const std::string message = failureOf([&] { return openSpz(formats / "broken" / name); });
        EXPECT_EQ(message.empty(), sound.count(name) > 0) << name << ": " << message;
        EXPECT_EQ(message.find('\n'), std::string::npos) << message;
        if (!message.empty()) {
            EXPECT_NE(message.find(name), std::string::npos) << message;
        }
    }
}

TEST_F(Packed, DamagedCompressedPlyFilesAreRefusedInOneLine) {
    // The splats of a chunk with a NaN range are NaN, too. They are dropped later.
    const std::set<std::string> sound = {"cply_rotation_over_unit.ply", "cply_nan_in_chunk.ply"};
    const std::vector<std::string> names = filesOf("broken", "cply_", ".ply");
    ASSERT_EQ(names.size(), 16u);
    for (const std::string& name : names) {
        const std::string message = failureOf([&] { return openCompressed(formats / "broken" / name); });
        EXPECT_EQ(message.empty(), sound.count(name) > 0) << name << ": " << message;
        EXPECT_EQ(message.find('\n'), std::string::npos) << message;
    }
}

TEST_F(Packed, AnAxesCodeThatIsNotKnownCanBeOverridden) {
    if (!hasZstd()) {
        GTEST_SKIP() << "the file is of version 4, and this build has no zstd";
    }
    const fs::path path = formats / "broken" / "spz_v4_ext_axes_value_99.spz";
    EXPECT_NE(failureOf([&] { return openSpz(path); }).find("--axes"), std::string::npos);
    EXPECT_EQ(failureOf([&] { return openSpz(path, InputAxes::rightUpBack); }), "");
}

TEST_F(Packed, TurningByHandIsTurningBack) {
    const fs::path path = formats / "spz" / "camera512_d3_v3.spz";
    const auto turned = openSpz(path);
    const auto stored = openSpz(path, InputAxes::rightDownFront);
    float a[Tavrin::GaussionSplat::layoutWithCoefficients.floats];
    float b[Tavrin::GaussionSplat::layoutWithCoefficients.floats];
    turned->read(7, 1, a);
    stored->read(7, 1, b);
    EXPECT_EQ(a[0], b[0]);
    EXPECT_EQ(a[1], -b[1]);
    EXPECT_EQ(a[2], -b[2]);
    EXPECT_EQ(a[9], 0.0f - b[9]); // -y
    EXPECT_EQ(a[11], b[11]);      // x
}

// Ctrl-C while a file is unpacked.
TEST_F(Packed, UnpackingEndsWithWhatPauseThrows) {
    struct Interrupted {};
    std::size_t calls = 0;
    std::size_t last = SIZE_MAX;
    const auto pause = [&] {
        if (++calls > last) {
            throw Interrupted();
        }
    };
    const fs::path path = formats / "spz" / "camera512_d3_v3.spz";
    const auto open = [&] {
        const SpzInput input(path, InputAxes::stated, fs::temp_directory_path(), pause);
        std::vector<float> records(input.count * Tavrin::GaussionSplat::layoutWithCoefficients.floats);
        input.read(0, input.count, records.data());
    };
    open();
    for (const std::size_t most : {std::size_t{0}, calls / 2, calls - 1}) {
        calls = 0;
        last = most;
        EXPECT_THROW(open(), Interrupted) << most;
    }
}

TEST_F(Packed, PositionsAtTheEndsOfTheirBitsAreRemarked) {
    SpzInput edge(formats / "spz" / "edge_bytes_d1_v2_frac12_own.spz", InputAxes::stated,
                  fs::temp_directory_path());
    SpzInput plain(formats / "spz" / "camera512_d3_v2.spz", InputAxes::stated, fs::temp_directory_path());
    std::vector<float> records(512 * Tavrin::GaussionSplat::layoutWithCoefficients.floats);
    edge.read(0, edge.count, records.data());
    plain.read(0, plain.count, records.data());
    const std::vector<std::string> remarks = edge.laterRemarks();
    ASSERT_EQ(remarks.size(), 1u);
    EXPECT_NE(remarks[0].find("2048"), std::string::npos) << remarks[0];
    EXPECT_TRUE(plain.laterRemarks().empty());
}

} // namespace
