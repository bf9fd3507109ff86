// A scene of any layout, converted by the stream, and its normal form, converted by the library, must give
// the same dataset.

#include "source/canonical_header.h"
#include "source/merge.h"
#include "tests/unit/stream_support.h"

#include <nlohmann/json.hpp>

#include <array>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using namespace Tavrin;
namespace fs = std::filesystem;
using support::PlyFile;
using support::Scratch;

// The canonical file of a scene, for the library.
std::string normalForm(const SplatSource::Source& scene, const SplatStream::Measured& measured) {
    const std::size_t floats = GaussionSplat::recordLayout(scene.hasCoefficients).floats;
    std::vector<float> records(scene.count * floats);
    const std::uint64_t kept = scene.read(0, scene.count, records.data());
    EXPECT_EQ(kept, measured.splats);
    return SplatSource::canonicalHeader(measured.params, measured.isBoxStated || scene.boundsSeen, kept,
                                        scene.hasCoefficients) +
           std::string(reinterpret_cast<const char*>(records.data()), kept * floats * sizeof(float));
}

// convert(X) has the bytes of library(normalise(X)).
void expectSameDataset(const Scratch& scratch, const std::vector<fs::path>& inputs,
                       SplatSource::SceneOptions options = {}) {
    options.open.threads = 2;
    options.open.scratchFolder = scratch.folder();
    const auto scene = SplatSource::openScene(inputs, options);
    const fs::path normal = scratch / "normal.ply";
    for (const unsigned threads : {1u, 2u}) {
        const SplatStream::Measured measured = SplatStream::stream(
            *scene, support::pathBytes(normal), scratch / "streamed", SplatStream::settingsOf(threads, 100));
        support::writeFile(normal, normalForm(*scene, measured));
        SplatStream::convertByLibrary(scratch, normal);
        SplatStream::expectSameDatasets(scratch / "streamed", scratch / "library");
    }
    // The normal form of a normal form is itself.
    const auto again = SplatSource::openScene({normal}, {});
    const SplatStream::Measured measured = SplatStream::measure(*again, SplatStream::settingsOf(2, 100));
    EXPECT_TRUE(normalForm(*again, measured) == support::readFile(normal));
}

TEST(NormalForm, OfRandomScenesWithEveryComment) {
    const std::vector<std::vector<std::string>> headers = {
        {},
        {"comment minx -20", "comment miny -15", "comment minz -3", "comment maxx 20", "comment maxy 15",
         "comment maxz 9"},
        {"comment minx 0", "comment maxx 20"}, // seen, but not usable
        {"comment maxy 5"},
        {"comment source here", "comment dataType survey", "comment epsg 25832"},
        {"comment offsetx 500137.0225660622", "comment offsety -0", "comment offsetz 1e-3"},
        {"comment offsetx 123456.789", "comment minx -20", "comment maxx 20.0001"},
        {"comment shiftx 1.1", "comment scalez 2.5", "comment scalex 0"},
    };
    for (const bool coefficients : {false, true}) {
        for (const auto& comments : headers) {
            SCOPED_TRACE(comments.empty() ? std::string("no comments") : comments.front());
            const Scratch scratch;
            PlyFile file = support::randomFile(5, 400, coefficients);
            file.comments = comments;
            file.write(scratch / "scene.ply");
            expectSameDataset(scratch, {scratch / "scene.ply"});
        }
    }
}

TEST(NormalForm, OfScenesWithoutCoefficientsThatLieAnywhere) {
    const std::array<std::array<float, 2>, 5> ranges = {
        {{5.0f, 6.0f}, {-6.0f, -5.0f}, {0.0f, 0.0f}, {0.0005f, 0.05f}, {-0.5f, -0.05f}}};
    for (const auto& [low, high] : ranges) {
        SCOPED_TRACE(low);
        const Scratch scratch;
        PlyFile file = support::randomFile(9, 200, false);
        for (std::size_t i = 0; i < file.count(); ++i) {
            file.records[i * file.recordFloats()] = low + (high - low) * static_cast<float>(i) / 199.0f;
        }
        file.write(scratch / "scene.ply");
        expectSameDataset(scratch, {scratch / "scene.ply"});
    }
}

TEST(NormalForm, OfAwkwardSplats) {
    for (std::uint64_t seed = 0; seed < 20; ++seed) {
        SCOPED_TRACE(seed);
        const Scratch scratch;
        PlyFile file;
        file.coefficients = seed % 2 == 0;
        support::Random random(seed);
        for (int i = 0; i < 300; ++i) {
            file.add(random.next() % 4 == 0 ? support::awkwardSplat(random)
                                            : support::randomSplat(random, 40.0f, 30.0f));
        }
        file.write(scratch / "scene.ply");
        expectSameDataset(scratch, {scratch / "scene.ply"});
    }
}

TEST(NormalForm, OfMergedScenes) {
    const Scratch scratch;
    PlyFile first = support::randomFile(1, 300, false);
    first.comments = {"comment offsetx 1000.5", "comment epsg 25832"};
    first.write(scratch / "first.ply");
    PlyFile second = support::randomFile(2, 250, true);
    second.comments = {"comment offsetx 1010.25", "comment epsg 25832", "comment minx -1", "comment maxx 1"};
    second.write(scratch / "second.ply");
    expectSameDataset(scratch, {scratch / "first.ply", scratch / "second.ply"});
    SplatSource::SceneOptions options;
    options.rules.minOpacity = 0.3;
    options.rules.crop = SplatSource::Box{{-10, -10, -100}, {10, 10, 100}};
    options.source = "two";
    expectSameDataset(scratch, {scratch / "first.ply", scratch / "second.ply"}, options);
}

TEST(NormalForm, OfScenesTooFarApartForOneOffset) {
    const Scratch scratch;
    support::randomFile(5, 400, false).write(scratch / "first.ply");
    PlyFile second = support::randomFile(6, 3, false);
    second.comments = {"comment offsetx 100000", "comment offsety -20000"};
    second.write(scratch / "second.ply");
    const std::vector<fs::path> inputs = {scratch / "first.ply", scratch / "second.ply"};
    expectSameDataset(scratch, inputs);
    EXPECT_TRUE(SplatSource::openScene(inputs, {})->bulk);
}

TEST(NormalForm, OfEveryOddFileAndEverySample) {
    const fs::path samples = PLYCONVERT_SAMPLES;
    if (!fs::exists(samples / "formats")) {
        GTEST_SKIP() << samples << " is not there";
    }
    std::vector<fs::path> files;
    for (const fs::path& folder : {samples, samples / "small", samples / "formats" / "ply"}) {
        for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
            const std::string name = entry.path().filename().string();
            const bool isScene = entry.path().extension() == ".ply" && !name.starts_with("not_splat") &&
                                 !name.starts_with("packed") && !name.starts_with("zero_vertices");
            if (isScene) {
                files.push_back(entry.path());
            }
        }
    }
    EXPECT_GE(files.size(), 54u);
    for (const fs::path& file : files) {
        SCOPED_TRACE(file.filename().string());
        const Scratch scratch;
        expectSameDataset(scratch, {file});
    }
}

} // namespace
