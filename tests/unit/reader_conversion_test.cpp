// Reads real conversions back. All relations must hold, positions must be exact, and every other attribute
// must be within half a step of the input.
#include "plyconvert.h"
#include "reader/dataset.h"
#include "reader/verify.h"
#include "tests/support/dataset_writer.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <random>

namespace {

using namespace Tavrin::SplatReader;
using DatasetWriter::TemporaryFolder;

std::string allFindings(const VerifyReport& report) {
    std::string text;
    for (const Finding& finding : report.findings.errors()) {
        text += "error: " + finding.text() + "\n";
    }
    return text;
}

struct Source {
    std::size_t floats = 0; // a record
    std::vector<float> values;

    std::size_t count() const { return values.size() / floats; }
    const float* record(std::size_t i) const { return values.data() + i * floats; }
    bool hasRest() const { return floats == support::floatsWith; }
    // Offsets of the fields after the colour, in floats.
    std::size_t opacity() const { return hasRest() ? 54 : 9; }
};

// The records of a file in one of the two forms that the library takes. Empty for another layout.
Source readSource(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    Source source;
    std::size_t count = 0;
    for (std::string line; std::getline(file, line) && line != "end_header";) {
        if (line.rfind("element vertex ", 0) == 0) {
            count = std::stoul(line.substr(15));
        }
        source.floats += line.rfind("property float ", 0) == 0 ? 1u : 0u;
    }
    if (source.floats != support::floatsWith && source.floats != support::floatsWithout) {
        return {};
    }
    source.values.resize(count * source.floats);
    file.read(reinterpret_cast<char*>(source.values.data()),
              static_cast<std::streamsize>(source.values.size() * 4));
    return source;
}

// Expects an error of at most half a step, plus the rounding of single precision, in the attribute's own
// units.
void expectNear(double found, double expected, double step, const char* what, std::size_t splat) {
    const double slack = std::max(std::fabs(expected), 1.0) * 2e-6;
    ASSERT_LE(std::fabs(found - expected), step / 2 + slack) << what << " of splat " << splat;
}

void compareSplat(const Source& source, std::size_t i, const LoadedSplat& loaded, const Dequantiser& steps) {
    const float* record = source.record(i);
    const Splat& splat = loaded.splat;
    ASSERT_EQ(std::memcmp(splat.position.data(), record, 12), 0) << "position of splat " << i;
    const std::size_t tail = source.opacity();
    for (std::size_t axis = 0; axis < 3; ++axis) {
        const double colour = std::clamp(static_cast<double>(record[6 + axis]) * 0.2820948 + 0.5, 0.0, 1.0);
        expectNear(splat.colour[axis], colour, Dequantiser::colourStep(), "colour", i);
        expectNear(splat.normal[axis], record[3 + axis], steps.normalStep(axis), "normal", i);
        expectNear(splat.scale[axis], std::exp(static_cast<double>(record[tail + 1 + axis])),
                   steps.scaleStep(axis), "scale", i);
    }
    const double opacity = 1.0 / (std::exp(-static_cast<double>(record[tail])) + 1.0);
    // Step 0 means fully transparent if the scene has such splats, so its error can be a whole step.
    expectNear(splat.opacity, opacity, Dequantiser::opacityStep() * (loaded.record.opacity == 0 ? 2.0 : 1.0),
               "opacity", i);
    for (std::size_t k = 0; source.hasRest() && k < 45; ++k) {
        expectNear(splat.coefficients[k], record[9 + k], steps.coefficientStep(k / 15), "coefficient", i);
    }
    double length = 0.0;
    const std::size_t largest = ((loaded.record.rotation >> 30) + 1) % 4;
    const float* rotation = record + tail + 4;
    for (std::size_t c = 0; c < 4; ++c) {
        length += static_cast<double>(rotation[c]) * rotation[c];
    }
    length = std::sqrt(length) * (rotation[largest] >= 0 ? 1.0 : -1.0);
    for (std::size_t c = 0; c < 4; ++c) {
        // The three stored components are within half a step. The fourth is computed from them and
        // accumulates their errors.
        const double steps3 = c == largest ? 5.4 : 1.01;
        expectNear(splat.rotation[c], rotation[c] / length, Dequantiser::rotationStep() * steps3, "rotation",
                   i);
    }
}

// A cell keeps the input's order, so each input splat must be the next record of its cell.
void expectConverted(const std::filesystem::path& input, const Source& source) {
    const TemporaryFolder folder;
    const std::string output = (folder.path() / "out").string();
    ASSERT_EQ(plyConvert(input.string().c_str(), output.c_str()), PLYCONVERT_DONE);
    VerifyOptions options;
    options.level = VerifyLevel::full;
    const VerifyReport report = verifyDataset(output, options);
    EXPECT_EQ(allFindings(report), "");
    EXPECT_EQ(report.findings.warningKinds().count("meta-form"), 0u);
    EXPECT_EQ(report.splatsLeftOut, 0u);
    const Dataset dataset = Dataset::open(output);
    std::map<std::uint32_t, std::vector<LoadedSplat>> cells;
    for (LoadedSplat& splat : loadWhole(dataset)) {
        cells[splat.cellKey].push_back(std::move(splat));
    }
    std::map<std::uint32_t, std::size_t> next;
    for (std::size_t i = 0; i < source.count(); ++i) {
        const std::uint32_t key = dataset.grid().keyAt(source.record(i)[0], source.record(i)[1]);
        const std::size_t place = next[key]++;
        ASSERT_LT(place, cells[key].size());
        compareSplat(source, i, cells[key][place], dataset.dequantiser());
        if (testing::Test::HasFatalFailure()) {
            return;
        }
    }
}

Source randomSource(std::size_t count, bool rest, unsigned seed) {
    std::mt19937 engine(seed);
    std::normal_distribution<float> normal;
    Source source;
    source.floats = support::floatsOf(rest);
    source.values.resize(count * source.floats);
    for (float& value : source.values) {
        value = normal(engine);
    }
    for (std::size_t i = 0; i < count; ++i) {
        float* record = source.values.data() + i * source.floats;
        record[0] = 40.0f * record[0];
        record[1] = 25.0f * record[1];
        record[source.opacity()] *= 8.0f;
    }
    return source;
}

void convertAndCompare(const Source& source) {
    const TemporaryFolder folder;
    const std::filesystem::path input = folder.path() / "in.ply";
    support::PlyFile file;
    file.coefficients = source.hasRest();
    file.records = source.values;
    file.write(input);
    expectConverted(input, source);
}

TEST(ReaderConversion, ASceneWithCoefficientsComesBack) {
    convertAndCompare(randomSource(20'000, true, 1));
}

TEST(ReaderConversion, ASceneWithoutCoefficientsComesBack) {
    convertAndCompare(randomSource(20'000, false, 2));
}

TEST(ReaderConversion, OneSplatComesBack) {
    convertAndCompare(randomSource(1, true, 3));
}

TEST(ReaderConversion, OpaqueAndTransparentStaySo) {
    Source source = randomSource(4, false, 4);
    const float logits[] = {200.0f, -200.0f, std::numeric_limits<float>::infinity(),
                            -std::numeric_limits<float>::infinity()};
    for (std::size_t i = 0; i < 4; ++i) {
        source.values[i * source.floats + 9] = logits[i];
    }
    convertAndCompare(source);
}

TEST(ReaderConversion, EverySampleComesBack) {
    const std::filesystem::path samples =
        std::filesystem::path(PLYCONVERT_SOURCE_FOLDER) / "../shared/samples";
    if (!std::filesystem::is_directory(samples)) {
        GTEST_SKIP() << "the folder of sample scenes is missing: " << samples;
    }
    std::size_t compared = 0;
    std::filesystem::recursive_directory_iterator entry(samples);
    for (const std::filesystem::recursive_directory_iterator end; entry != end; ++entry) {
        if (entry->path().filename() == "formats") {
            entry.disable_recursion_pending(); // formats that the library does not take
        }
        if (entry->path().extension() != ".ply") {
            continue;
        }
        const Source source = readSource(entry->path());
        const std::string name = entry->path().filename().string();
        // Point clouds. Files of other record layouts have no floats here.
        if (source.floats == 0 || name.find("not_splat") == 0) {
            continue;
        }
        SCOPED_TRACE(name);
        expectConverted(entry->path(), source);
        ++compared;
    }
    EXPECT_GE(compared, 8u);
}

} // namespace
