// Files as real programs write them: scenes, and headers alone. They are not part of the project. If their
// folder is missing, the tests are skipped and say so. The CMake variable PLYCONVERT_SAMPLES names the
// folder.

#include "reader/verify.h"
#include "tests/reference/converter.h"
#include "tests/support/conversion.h"
#include "tests/support/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string>

namespace samples {

namespace fs = std::filesystem;
using namespace Tavrin::SplatReader;

// The outcome of a conversion.
enum class Outcome {
    sound,   // a dataset in which the reader finds nothing wrong
    foreign, // a dataset with meaningless positions and attributes: the records have another layout than the
             // two that the library knows, or there are none
    refused, // not a splat file: result -1
    empty,   // no splats: the process ends
};

struct Sample {
    const char* file;
    Outcome outcome;
    std::int64_t splats = 0; // for a dataset
    bool coefficients = false;
};

void PrintTo(const Sample& sample, std::ostream* stream) {
    *stream << sample.file;
}

constexpr Sample sceneSamples[] = {
    {"real_61849_sh3_62f_trained_here.ply", Outcome::sound, 61849, true},
    {"real_116549_sh3_62f_from_spz.ply", Outcome::sound, 116549, true},
    {"real_1000001_nosh_14f.ply", Outcome::foreign, 1000001, false},
    {"real_31000_sh2_41f.ply", Outcome::foreign, 31000, true},
    {"real_58649_nosh_17f.ply", Outcome::sound, 58649, false},
    {"native_9080_sh3_62f.ply", Outcome::sound, 9080, true},
    {"native_8192_brush_leica_59f.ply", Outcome::foreign, 8192, true},
    {"native_8192_brush_yashica_59f.ply", Outcome::foreign, 8192, true},
    {"real_8192_sh3_62f_scaniverse.ply", Outcome::sound, 8192, true},
    {"small/native_1000_train_62f.ply", Outcome::sound, 1000, true},
    {"small/native_100_trailing_bytes_62f.ply", Outcome::sound, 100, true},
    {"small/native_3_train_62f.ply", Outcome::sound, 3, true},
    {"small/packed_64_chunk_vertex_sh.ply", Outcome::refused},
    {"small/synthetic_9_opacity_inf_62f.ply", Outcome::sound, 9, true},
    {"small/synthetic_16_opacity_100_62f.ply", Outcome::sound, 16, true},
    {"small/not_splat_sfm_points_25784.ply", Outcome::refused},
    {"small/not_splat_mesh.ply", Outcome::refused},
};

// The last element line gives the count, whatever it counts. Missing records are zeros.
constexpr Sample headerSamples[] = {
    {"headers/fixture_01_degree-1-sh.txt", Outcome::foreign, 1, true},
    {"headers/fixture_02_degree-2-sh.txt", Outcome::foreign, 1, true},
    {"headers/fixture_03_reordered-properties.txt", Outcome::foreign, 1, true},
    {"headers/fixture_04_degree-4-sh.txt", Outcome::foreign, 1, true},
    {"headers/fixture_05_sh-count-not-rgb.txt", Outcome::foreign, 1, true},
    {"headers/fixture_06_sh-invalid-degree.txt", Outcome::foreign, 1, true},
    {"headers/fixture_07_non-contiguous-sh.txt", Outcome::foreign, 1, true},
    {"headers/fixture_08_duplicate-sh-index.txt", Outcome::foreign, 1, true},
    {"headers/fixture_09_invalid-sh-name.txt", Outcome::foreign, 1, true},
    {"headers/fixture_10_missing-opacity.txt", Outcome::refused},
    {"headers/fixture_11_list-property.txt", Outcome::refused}, // a list line has more than three words
    {"headers/fixture_12_empty-vertex.txt", Outcome::empty},
    {"headers/fixture_13_out-of-range-double.txt", Outcome::foreign, 1, false},
    {"headers/geo_01_comments_before_element_lf.txt", Outcome::foreign, 1048576, true},
    {"headers/geo_02_comments_between_element_and_property_lf.txt", Outcome::foreign, 16, true},
    {"headers/geo_03_crlf_everywhere.txt", Outcome::foreign, 16, false},
    {"headers/geo_04_crlf_but_end_header.txt", Outcome::foreign, 16, true},
    {"headers/quoted_01_supersplat_sh0_14floats.txt", Outcome::foreign, 1656760, false},
    {"headers/quoted_02_worldgen_sh0_17floats.txt", Outcome::foreign, 1280000, false},
    {"headers/quoted_03_supersplat262_compressed_sh.txt", Outcome::refused},
    {"headers/quoted_04_not_splat_geomagic_crlf.txt", Outcome::refused},
    {"headers/quoted_05_graphdeco_66290.txt", Outcome::foreign, 66290, true},
    {"headers/quoted_06_brush_bench_order.txt", Outcome::foreign, 100000, true},
    {"headers/real_01_graphdeco_sh3_62floats.txt", Outcome::foreign, 9080, true},
    {"headers/real_02_brush_v030_sh3_alphabetical.txt", Outcome::foreign, 8192, true},
    {"headers/real_03_graphdeco_train_first1000.txt", Outcome::foreign, 1000, true},
    {"headers/real_04_graphdeco_trailing_bytes.txt", Outcome::foreign, 100, true},
    {"headers/real_05_graphdeco_3points.txt", Outcome::foreign, 3, true},
    {"headers/real_06_compressed_chunk_supersplat271.txt", Outcome::refused},
    {"headers/real_07_compressed_chunk_vertex_sh_uchar.txt", Outcome::refused},
    {"headers/real_08_not_splat_sfm_points_uchar_rgb.txt", Outcome::refused},
    {"headers/real_09_not_splat_obj_info_cloudcompare.txt", Outcome::refused},
    {"headers/real_10_not_splat_mesh_face_list.txt", Outcome::refused},
    {"headers/real_11_not_splat_open3d_ascii_splatname.txt", Outcome::refused},
    {"headers/real_12_not_splat_vcg_mixed_types.txt", Outcome::refused},
    {"headers/tool_01_nerfstudio_sh3.txt", Outcome::foreign, 1001111, true},
    {"headers/tool_02_nerfstudio_sh2.txt", Outcome::foreign, 205821, true},
    {"headers/tool_03_nerfstudio_sh1.txt", Outcome::foreign, 205821, true},
    {"headers/tool_04_nerfstudio_rgb_uchar.txt", Outcome::refused}, // colours are bytes, no f_dc_0
    {"headers/tool_05_gsplat_sh3_no_normals.txt", Outcome::foreign, 138766, true},
    {"headers/tool_06_brush_current_sh3.txt", Outcome::foreign, 566820, true},
    {"headers/tool_07_brush_current_sh0.txt", Outcome::foreign, 4096, false},
    {"headers/tool_08_brush_current_sh4_72rest.txt", Outcome::foreign, 4096, true},
    {"headers/tool_09_sharp_extra_elements_after.txt", Outcome::foreign, 3, false}, // element version 3
    {"headers/tool_10_ios_sharp_extra_elements_ascii.txt", Outcome::foreign, 16,
     false}, // element extrinsic 16
    {"headers/tool_13_mip_filter3d.txt", Outcome::foreign, 559263, true},
    {"headers/tool_14_ascii_double_with_uint_ids.txt", Outcome::foreign, 2, false},
};

const fs::path samplesFolder = PLYCONVERT_SAMPLES;

std::string missingFolder() {
    return "no sample files in " + samplesFolder.generic_string() +
           ": set PLYCONVERT_SAMPLES to their folder to run this test";
}

std::string findingsOf(const VerifyReport& report) {
    std::string text;
    for (const Finding& finding : report.findings.errors()) {
        text += finding.text() + "\n";
    }
    return text;
}

class Samples : public testing::TestWithParam<Sample> {
protected:
    support::Scratch scratch;
    fs::path output = scratch / "out";
    const Sample& sample = GetParam();

    void SetUp() override {
        if (!fs::is_directory(samplesFolder)) {
            GTEST_SKIP() << missingFolder();
        }
    }

    void expectReference() const {
        const reference::Dataset expected =
            reference::convert(support::readFile(samplesFolder / sample.file));
        const support::DatasetFiles found = support::readDataset(output);
        EXPECT_TRUE(found.data == expected.data);
        EXPECT_TRUE(found.coefficients == expected.coefficients);
        EXPECT_TRUE(found.index == expected.index);
        EXPECT_EQ(support::withoutGuid(found.meta), expected.meta);
        EXPECT_EQ(found.hasCoefficients, sample.coefficients);
        EXPECT_EQ(support::metaValue(found.meta, "totalSplats"), std::to_string(sample.splats));
        EXPECT_EQ(support::metaValue(found.meta, "fileType"),
                  sample.coefficients ? "\"Quality\"" : "\"Portable\"");
    }

    void expectSound() const {
        VerifyOptions options;
        options.level = VerifyLevel::full;
        const VerifyReport report = verifyDataset(output, options);
        EXPECT_EQ(findingsOf(report), "");
        EXPECT_EQ(report.splatsHeld, static_cast<std::uint64_t>(sample.splats));
    }
};

TEST_P(Samples, GiveTheOutcomeInTheTable) {
    const support::HostReport report =
        support::convertOnce(scratch.folder(), samplesFolder / sample.file, output);
    ASSERT_EQ(report.calls.size(), 1u) << report.childFailure;
    const support::CallReport& call = report.calls.front();
    switch (sample.outcome) {
    case Outcome::sound:
    case Outcome::foreign:
        ASSERT_EQ(call.result, 0) << call.what << report.process.output;
        expectReference();
        if (sample.outcome == Outcome::sound) {
            expectSound();
        }
        break;
    case Outcome::refused:
        EXPECT_EQ(call.result, -1);
        EXPECT_EQ(report.process.output, "");
        EXPECT_FALSE(fs::exists(output));
        break;
    case Outcome::empty:
        EXPECT_FALSE(call.result.has_value());
        EXPECT_EQ(report.process.status, 255);
        EXPECT_THAT(report.process.output, testing::HasSubstr("cannot GET lod0 data\n"));
        break;
    }
}

std::string nameOf(const testing::TestParamInfo<Sample>& sample) {
    std::string name = fs::path(sample.param.file).stem().string();
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Scene, Samples, testing::ValuesIn(sceneSamples), nameOf);
INSTANTIATE_TEST_SUITE_P(Header, Samples, testing::ValuesIn(headerSamples), nameOf);

// The geo-referenced headers place the same scene differently and have different line ends.
class GeoReferenced : public Samples {};

TEST_P(GeoReferenced, CommentsReachTheDocument) {
    const support::HostReport report =
        support::convertOnce(scratch.folder(), samplesFolder / sample.file, output);
    ASSERT_EQ(report.calls.at(0).result, 0);
    const std::string meta = support::readDataset(output).meta;
    using support::metaValue;
    EXPECT_EQ(metaValue(meta, "source"), "\"ytr\"");
    EXPECT_EQ(metaValue(meta, "dataType"), "\"mobile_scanner\"");
    EXPECT_EQ(metaValue(meta, "epsg"), "32632");
    // Rounded to single precision.
    EXPECT_EQ(metaValue(meta, "offset"), "[500137.03125, 5414437.5, 312.73770141601562]");
    EXPECT_EQ(metaValue(meta, "shift"), "[0, 0, 0]");
    EXPECT_EQ(metaValue(meta, "scale"), "[1, 1, 1]");
    EXPECT_THAT(meta, testing::HasSubstr("\t\t\"min\": [-24, -6, -24], \n\t\t\"max\": [24, 8, 24]\n"));
}

INSTANTIATE_TEST_SUITE_P(Header, GeoReferenced,
                         testing::Values(headerSamples[13], headerSamples[14], headerSamples[15],
                                         headerSamples[16]),
                         nameOf);

TEST(SampleFolder, HoldsTheFilesOfTheTables) {
    if (!fs::is_directory(samplesFolder)) {
        GTEST_SKIP() << missingFolder();
    }
    std::set<std::string> found;
    for (const std::string& name : support::filesUnder(samplesFolder)) {
        // Other suites test the other formats and the catalogue.
        const bool isOther = name.starts_with("formats/") || name.starts_with("stac/");
        if (!isOther && (name.ends_with(".ply") || name.ends_with(".txt"))) {
            found.insert(name);
        }
    }
    std::set<std::string> listed;
    for (const Sample& sample : sceneSamples) {
        listed.insert(sample.file);
    }
    for (const Sample& sample : headerSamples) {
        listed.insert(sample.file);
    }
    EXPECT_EQ(found, listed);
}

} // namespace samples
