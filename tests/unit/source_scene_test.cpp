// Dropping splats, merging inputs, choosing offsets.

#include "source/merge.h"
#include "tests/support/files.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace Tavrin;
using namespace Tavrin::SplatSource;
using support::PlyFile;
using support::Scratch;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float notANumber = std::numeric_limits<float>::quiet_NaN();

support::Splat ordinary() {
    support::Splat splat;
    splat.position = {1.0f, 2.0f, 3.0f};
    splat.scale = {-3.0f, -4.0f, -5.0f};
    splat.opacity = 4.0f;
    return splat;
}

struct Kept {
    std::vector<float> records;
    std::size_t floats = 0;
    std::size_t count() const { return records.size() / floats; }
    const float* operator[](std::size_t i) const { return records.data() + i * floats; }
};

Kept readAll(const Source& source, std::uint64_t window = 100) {
    Kept kept;
    kept.floats = GaussionSplat::recordLayout(source.hasCoefficients).floats;
    std::vector<float> part(window * kept.floats);
    for (std::uint64_t first = 0; first < source.count; first += window) {
        const std::uint64_t size = std::min(window, source.count - first);
        const std::uint64_t there = source.read(first, size, part.data());
        kept.records.insert(kept.records.end(), part.begin(),
                            part.begin() + static_cast<std::ptrdiff_t>(there * kept.floats));
    }
    return kept;
}

std::unique_ptr<Scene> sceneOf(const std::vector<std::filesystem::path>& paths, SceneOptions options = {}) {
    options.open.threads = 2;
    return openScene(paths, options);
}

// Writes scenes to a folder of the test's own and opens them.
struct Files : testing::Test {
    const Scratch scratch;

    // Under a name of its own: scenes that are open keep their files.
    std::filesystem::path write(const std::string& bytes) {
        const std::filesystem::path path = scratch / ("scene" + std::to_string(++written_) + ".ply");
        support::writeFile(path, bytes);
        return path;
    }
    std::filesystem::path write(const PlyFile& file) { return write(file.bytes()); }
    template <typename File>
    std::unique_ptr<Scene> open(const File& file, const SceneOptions& options = {}) {
        return sceneOf({write(file)}, options);
    }

private:
    int written_ = 0;
};
using KeptSplatsTest = Files;
using SceneTest = Files;

std::uint64_t dropped(const Ledger& ledger, DropReason reason) {
    return ledger.dropped[static_cast<std::size_t>(reason)];
}

TEST_F(KeptSplatsTest, DropsInvalidOnesAndCountsThemOnce) {
    PlyFile file;
    file.coefficients = true;
    const auto add = [&](auto change) {
        support::Splat splat = ordinary();
        change(splat);
        file.add(splat);
    };
    add([](support::Splat&) {});
    add([](support::Splat& s) { s.position[1] = notANumber; });
    add([](support::Splat& s) { s.position[2] = -infinity; });
    add([](support::Splat& s) { s.scale[0] = infinity; });
    add([](support::Splat& s) { s.scale[0] = notANumber; });
    add([](support::Splat& s) { s.scale[2] = -infinity; }); // legal
    add([](support::Splat& s) { s.opacity = notANumber; });
    add([](support::Splat& s) { s.opacity = infinity; });  // legal
    add([](support::Splat& s) { s.opacity = -infinity; }); // legal
    add([](support::Splat& s) { s.dc[2] = infinity; });
    add([](support::Splat& s) { s.rest[44] = notANumber; });
    add([](support::Splat& s) { s.normal[0] = infinity; });
    add([](support::Splat& s) { s.rotation[3] = notANumber; });
    add([](support::Splat& s) { s.rotation = {0.0f, -0.0f, 0.0f, 0.0f}; });
    const auto scene = open(file);
    for (const std::uint64_t window : {1u, 5u, 14u}) {
        EXPECT_EQ(readAll(*scene, window).count(), 4u);
    }
    const Ledger ledger = scene->ledger();
    EXPECT_EQ(ledger.read, 14u);
    EXPECT_EQ(ledger.kept, 4u);
    EXPECT_EQ(dropped(ledger, DropReason::invalid), 10u);
    EXPECT_EQ(ledger.firstInvalid, 1u);
    EXPECT_EQ(invalidText(ledger),
              "2 positions, 2 scales, 1 opacity, 1 colour, 1 coefficient, 1 normal, 2 rotations");
    EXPECT_NO_THROW(scene->requireAccepted());
    const auto strict = open(file, {.isStrict = true});
    readAll(*strict);
    EXPECT_THROW(strict->requireAccepted(), SourceError);
}

TEST_F(KeptSplatsTest, CountsEveryRecordOnceInWhateverOrderItIsRead) {
    PlyFile file;
    for (int i = 0; i < 1000; ++i) {
        support::Splat splat = ordinary();
        splat.position[0] = i % 3 == 0 ? notANumber : 1.0f;
        file.add(splat);
    }
    const auto scene = open(file);
    const auto work = [&](std::uint64_t start) {
        std::vector<float> part(100 * GaussionSplat::layoutWithoutCoefficients.floats);
        for (std::uint64_t i = 0; i < 2000; ++i) {
            const std::uint64_t first = (start + i * 37) % 1000;
            scene->read(first, std::min<std::uint64_t>(1 + i % 90, 1000 - first), part.data());
        }
    };
    std::thread other(work, 500);
    work(3);
    other.join();
    EXPECT_EQ(scene->ledger().read, 1000u);
    EXPECT_EQ(dropped(scene->ledger(), DropReason::invalid), 334u);
    EXPECT_EQ(scene->ledger().kept, 666u);
}

TEST_F(KeptSplatsTest, CropsAndThinsOutAsAsked) {
    PlyFile file;
    for (int i = 0; i < 10; ++i) {
        support::Splat splat = ordinary();
        splat.position[0] = static_cast<float>(i);
        splat.opacity = i == 4 ? 0.0f : i == 5 ? -0.01f : 3.0f; // opacities of 0.5 and a little less
        splat.scale[1] = i == 6 ? 1.0f : -1.0f;
        file.add(splat);
    }
    SceneOptions options;
    options.rules = {.crop = Box{{2, -9, -9}, {7, 9, 9}}, .minOpacity = 0.5, .maxScale = 2.0};
    const auto scene = open(file, options);
    const Kept kept = readAll(*scene, 3);
    ASSERT_EQ(kept.count(), 4u);
    EXPECT_EQ(kept[0][0], 2.0f);
    EXPECT_EQ(kept[2][0], 4.0f);
    EXPECT_EQ(kept[3][0], 7.0f);
    const Ledger ledger = scene->ledger();
    EXPECT_EQ(dropped(ledger, DropReason::crop), 4u);
    EXPECT_EQ(dropped(ledger, DropReason::opacity), 1u);
    EXPECT_EQ(dropped(ledger, DropReason::scale), 1u);
    EXPECT_EQ(ledger.read, ledger.kept + ledger.droppedInAll());
}

TEST_F(KeptSplatsTest, LinearValuesAreRefusedUntilTheyAreNamed) {
    PlyFile file;
    for (int i = 1; i < 10; ++i) {
        support::Splat splat = ordinary();
        splat.opacity = static_cast<float>(i) / 10;
        splat.scale = {0.5f, 0.25f, 1.0f};
        file.add(splat);
    }
    const auto told = open(file);
    readAll(*told);
    EXPECT_THROW(told->requireAccepted(), SourceError);
    const auto half = open(file, {.scales = ScaleValues::linear});
    readAll(*half);
    EXPECT_THROW(half->requireAccepted(), SourceError);
    const auto named = open(file, {.scales = ScaleValues::linear, .opacities = OpacityValues::linear});
    const Kept kept = readAll(*named);
    EXPECT_NO_THROW(named->requireAccepted());
    EXPECT_FLOAT_EQ(kept[0][9], std::log(0.1f / 0.9f));
    EXPECT_FLOAT_EQ(kept[0][10], std::log(0.5f));
    const auto kind = open(file, {.scales = ScaleValues::logarithms, .opacities = OpacityValues::logits});
    EXPECT_EQ(readAll(*kind)[0][10], 0.5f);
    EXPECT_NO_THROW(kind->requireAccepted());
}

// A PLY file of the smaller form with positions in double precision.
std::string wideFile(const std::vector<std::array<double, 3>>& positions, const std::string& comments) {
    std::string bytes = "ply\nformat binary_little_endian 1.0\n" + comments + "element vertex " +
                        std::to_string(positions.size()) + "\n";
    for (const char* const name : {"x", "y", "z"}) {
        bytes += std::string("property double ") + name + "\n";
    }
    for (const char* const name : {"f_dc_0", "f_dc_1", "f_dc_2", "opacity", "scale_0", "scale_1", "scale_2",
                                   "rot_0", "rot_1", "rot_2", "rot_3"}) {
        bytes += std::string("property float ") + name + "\n";
    }
    bytes += "end_header\n";
    for (const auto& position : positions) {
        const float rest[] = {0, 0, 0, 5, -1, -1, -1, 1, 0, 0, 0};
        bytes.append(reinterpret_cast<const char*>(position.data()), sizeof position);
        bytes.append(reinterpret_cast<const char*>(rest), sizeof rest);
    }
    return bytes;
}

constexpr double halfMillimetre = 0.0005;

Box extentOf(const Kept& kept) {
    Box box = {{kept[0][0], kept[0][1], kept[0][2]}, {kept[0][0], kept[0][1], kept[0][2]}};
    for (std::size_t i = 0; i < 3 * kept.count(); ++i) {
        const double value = kept[i / 3][i % 3];
        box.min[i % 3] = std::min(box.min[i % 3], value);
        box.max[i % 3] = std::max(box.max[i % 3], value);
    }
    return box;
}

// Expects every position of the scene, with its offset, within half a millimetre of the given one.
void expectPlaces(const Scene& scene, const std::vector<std::array<double, 3>>& places) {
    const Kept kept = readAll(scene);
    ASSERT_EQ(kept.count(), places.size());
    const double offset[] = {scene.params.offsetx, scene.params.offsety, scene.params.offsetz};
    for (std::size_t i = 0; i < places.size(); ++i) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            const double error = std::abs(double{kept[i][axis]} + offset[axis] - places[i][axis]);
            EXPECT_LE(error, halfMillimetre);
            EXPECT_LE(error, scene.errorWithin(extentOf(kept)));
        }
    }
    for (const double part : offset) {
        EXPECT_EQ(part, double{static_cast<float>(part)});
        EXPECT_EQ(part, std::round(part));
    }
}

std::vector<std::array<double, 3>> utmPlaces(double east, double north) {
    std::vector<std::array<double, 3>> places;
    support::Random random(11);
    for (int i = 0; i < 500; ++i) {
        places.push_back({east + double{random.between(0, 900)} + 1e-4 * i,
                          north + double{random.between(0, 1200)} + 3e-4, double{random.between(100, 300)}});
    }
    return places;
}

TEST_F(SceneTest, ChoosesAnOffsetForLargeCoordinates) {
    const auto places = utmPlaces(500136.457, 5414435.741);
    const auto scene = open(wideFile(places, ""));
    EXPECT_TRUE(scene->isOffsetChosen);
    EXPECT_NE(scene->params.offsetx, 0.0);
    EXPECT_EQ(scene->params.offsetz, 0.0);
    EXPECT_FALSE(scene->isExact);
    expectPlaces(*scene, places);
}

TEST_F(SceneTest, ChoosesTheOffsetWithoutPositionsThatSinglePrecisionDoesNotHold) {
    auto places = utmPlaces(500136.457, 5414435.741);
    const std::array<double, 3> nowhere = {1e300, 0.0, -std::numeric_limits<double>::infinity()};
    auto more = places;
    more.insert(more.begin() + 7, nowhere);
    const auto scene = open(wideFile(more, ""));
    expectPlaces(*scene, places);
    EXPECT_EQ(dropped(scene->ledger(), DropReason::invalid), 1u);
}

// One splat far off costs the others nothing. It stays where it is, as exactly as single precision holds
// that.
TEST_F(SceneTest, GoesByTheBulkWhereNoOffsetHoldsAll) {
    for (const double far : {1e30, -3e8, 5.6e6}) {
        SCOPED_TRACE(far);
        const auto places = utmPlaces(500136.457, 5414435.741);
        auto more = places;
        more.insert(more.begin() + 7, {far, 5414500.0, 200.0});
        const auto scene = open(wideFile(more, ""));
        const Kept kept = readAll(*scene);
        ASSERT_EQ(kept.count(), more.size());
        const double offset[] = {scene->params.offsetx, scene->params.offsety, scene->params.offsetz};
        for (std::size_t i = 0; i < more.size(); ++i) {
            for (std::size_t axis = 0; axis < 3; ++axis) {
                const double error = std::abs(double{kept[i][axis]} + offset[axis] - more[i][axis]);
                EXPECT_LE(error, i == 7 ? std::abs(more[i][axis]) * 1e-7 : halfMillimetre) << i;
            }
        }
        ASSERT_TRUE(scene->bulk);
        EXPECT_LE(scene->errorWithin(*scene->bulk), halfMillimetre);
        EXPECT_GT(scene->errorWithin(extentOf(kept)), halfMillimetre);
        ASSERT_EQ(scene->remarks.size(), 1u);
        EXPECT_NE(scene->remarks[0].find("--crop"), std::string::npos) << scene->remarks[0];
    }
}

TEST_F(SceneTest, ChoosesNoOffsetForWhatLiesFarOffAlone) {
    auto places = utmPlaces(10.5, -20.25);
    places.push_back({1e9, 0.0, 0.0});
    const auto scene = open(wideFile(places, ""));
    EXPECT_FALSE(scene->isOffsetChosen);
    const Kept kept = readAll(*scene);
    for (std::size_t i = 0; i + 1 < places.size(); ++i) {
        EXPECT_EQ(kept[i][0], static_cast<float>(places[i][0]));
    }
    // Without it the scene has its offset as ever.
    SceneOptions options;
    options.rules.crop = Box{{0, -100, 0}, {2000, 2000, 2000}};
    EXPECT_FALSE(open(wideFile(places, ""), options)->bulk);
}

TEST_F(SceneTest, KeepsAllToHalfAMillimetreWhereOneOffsetDoes) {
    auto places = utmPlaces(10.5, -20.25);
    places.push_back({30000.0, 0.0, 0.0});
    const auto scene = open(wideFile(places, ""));
    EXPECT_FALSE(scene->bulk);
    EXPECT_NE(scene->params.offsetx, 0.0);
    expectPlaces(*scene, places);
}

TEST_F(SceneTest, LeavesSmallCoordinatesAndStatedOffsetsAlone) {
    const auto places = utmPlaces(10.5, -20.25);
    const auto near = open(wideFile(places, ""));
    EXPECT_FALSE(near->isOffsetChosen);
    expectPlaces(*near, places);
    EXPECT_EQ(open(wideFile(places, "comment offsetx 500000\n"))->params.offsetx, 500000.0);
}

TEST_F(SceneTest, CutsAStatedOffsetThatSinglePrecisionDoesNotHold) {
    PlyFile file;
    file.comments = {"comment offsetx 500137.0225660622", "comment offsety 5414436.4",
                     "comment offsetz 312.5", "comment minx -10", "comment maxx 10"};
    file.add(ordinary());
    const auto scene = open(file);
    EXPECT_TRUE(scene->isOffsetCut);
    EXPECT_EQ(scene->params.offsetx, 500137.0);
    EXPECT_EQ(scene->params.offsety, 5414436.0);
    EXPECT_EQ(scene->params.offsetz, 312.5);
    const Kept kept = readAll(*scene);
    EXPECT_NEAR(scene->params.offsetx + double{kept[0][0]}, 500138.0225660622, 1e-6);
    EXPECT_NEAR(scene->params.offsety + double{kept[0][1]}, 5414438.4, 1e-6);
    EXPECT_EQ(kept[0][2], 3.0f);
    // The bounds are moved with the positions.
    EXPECT_NEAR(scene->params.minx, -10 + 0.0225660622, 1e-6);
    EXPECT_LE(scene->params.minx, -10 + 0.0225660622);
}

TEST_F(SceneTest, MergesInputsOfOtherDegreesAndOffsets) {
    PlyFile first;
    first.comments = {"comment offsetx 1000", "comment epsg 25832", "comment minx -5", "comment maxx 5"};
    first.add(ordinary());
    PlyFile second;
    second.coefficients = true;
    second.comments = {"comment offsetx 1010", "comment offsety -2.5", "comment epsg 25832"};
    support::Splat splat = ordinary();
    splat.rest[20] = 0.5f;
    second.add(splat);
    const auto scene = sceneOf({write(first), write(second)});
    ASSERT_EQ(scene->count, 2u);
    ASSERT_TRUE(scene->hasCoefficients);
    EXPECT_EQ(scene->params.offsetx, 1000.0);
    EXPECT_EQ(scene->params.epsg, 25832);
    EXPECT_FALSE(scene->boundsSeen);
    EXPECT_EQ(scene->params.minx, 0.0);
    EXPECT_EQ(scene->params.dataType, "ply");
    const Kept kept = readAll(*scene);
    EXPECT_EQ(kept[0][0], 1.0f);
    EXPECT_EQ(kept[0][29], 0.0f);
    EXPECT_EQ(kept[0][54], 4.0f);
    EXPECT_EQ(kept[1][0], 11.0f);
    EXPECT_EQ(kept[1][1], -0.5f);
    EXPECT_EQ(kept[1][29], 0.5f);
    EXPECT_EQ(kept[1][58], 1.0f);
}

TEST_F(SceneTest, RefusesInputsOfDifferentReferenceSystems) {
    std::vector<std::filesystem::path> paths;
    for (const char* const code : {"25832", "25833"}) {
        PlyFile file;
        file.comments = {std::string("comment epsg ") + code};
        file.add(ordinary());
        paths.push_back(write(file));
    }
    EXPECT_THROW(sceneOf(paths), SourceError);
    EXPECT_EQ(sceneOf(paths, {.epsg = 4978})->params.epsg, 4978);
}

TEST_F(SceneTest, OptionsStandInForComments) {
    PlyFile file;
    file.comments = {"comment epsg 1", "comment offsetx 5", "comment source a", "comment dataType b"};
    file.add(ordinary());
    SceneOptions options;
    options.epsg = 25832;
    options.offset = Point{1, 2, 3};
    options.source = "here";
    options.dataType = "mine";
    const auto scene = open(file, options);
    EXPECT_EQ(scene->params.epsg, 25832);
    EXPECT_EQ(scene->params.offsety, 2.0);
    EXPECT_EQ(scene->params.source, "here");
    EXPECT_EQ(scene->params.dataType, "mine");
    EXPECT_EQ(readAll(*scene)[0][0], 1.0f);
}

} // namespace
