#include "scenes/scenes.h"

#include "tests/support/properties.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using scenes::Box;
using scenes::Order;
using scenes::SceneOptions;
using support::floatsWith;
using support::floatsWithout;

SceneOptions smallScene(std::uint64_t splats, bool coefficients) {
    SceneOptions options;
    options.splats = splats;
    options.seed = 7;
    options.coefficients = coefficients;
    return options;
}

// FNV-1a over 64 bits.
std::uint64_t hashOf(const void* bytes, std::size_t size) {
    std::uint64_t hash = 0xcbf29ce484222325u;
    const auto* at = static_cast<const unsigned char*>(bytes);
    for (std::size_t k = 0; k < size; ++k) {
        hash = (hash ^ at[k]) * 0x100000001b3u;
    }
    return hash;
}

std::uint64_t hashOf(const std::vector<float>& records) {
    return hashOf(records.data(), records.size() * sizeof(float));
}

class SceneFile : public testing::Test {
protected:
    void SetUp() override {
        const auto* info = testing::UnitTest::GetInstance()->current_test_info();
        folder = std::filesystem::temp_directory_path() / (std::string("scenes_test_") + info->name());
        std::filesystem::remove_all(folder);
        std::filesystem::create_directories(folder);
    }
    void TearDown() override { std::filesystem::remove_all(folder); }

    std::string contentOf(const std::filesystem::path& path) const {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    std::filesystem::path folder;
};

// The value of the three-word comment line with this key.
float statedBound(const std::string& header, const std::string& key) {
    std::istringstream lines(header);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string comment;
        std::string name;
        float value = 0.0f;
        if (words >> comment >> name >> value && comment == "comment" && name == key) {
            return value;
        }
    }
    return std::numeric_limits<float>::quiet_NaN();
}

TEST(Scenes, SameSeedGivesSameBytesEverywhere) {
    // Hashes of the records' bytes: the same for every compiler, optimisation level and system.
    EXPECT_EQ(hashOf(scenes::sceneRecords(smallScene(20'000, true))), 6992534688105738623u);
    EXPECT_EQ(hashOf(scenes::sceneRecords(smallScene(20'000, false))), 6590358169810881372u);
}

TEST(Scenes, AnotherSeedGivesAnotherScene) {
    SceneOptions other = smallScene(1'000, true);
    other.seed = 8;
    EXPECT_NE(scenes::sceneRecords(smallScene(1'000, true)), scenes::sceneRecords(other));
}

TEST(Scenes, CoefficientsLeaveTheOtherColumnsOfPositionAndColourAlone) {
    const std::vector<float> with = scenes::sceneRecords(smallScene(1'000, true));
    const std::vector<float> without = scenes::sceneRecords(smallScene(1'000, false));
    for (std::size_t k = 0; k < 1'000; ++k) {
        ASSERT_EQ(std::memcmp(&with[k * floatsWith], &without[k * floatsWithout], 9 * sizeof(float)), 0)
            << "splat " << k;
    }
}

TEST_F(SceneFile, HoldsTheHeaderAndTheRecordsOfTheSameOptions) {
    SceneOptions options = smallScene(40'000, true); // more than one block of the writer
    options.statedBounds = true;
    const Box bounds = scenes::writeScene(folder / "scene.ply", options);
    const std::string content = contentOf(folder / "scene.ply");
    const std::string header = scenes::sceneHeader(options, bounds);
    const std::vector<float> records = scenes::sceneRecords(options);
    ASSERT_EQ(content.size(), header.size() + records.size() * sizeof(float));
    EXPECT_EQ(content.substr(0, header.size()), header);
    EXPECT_EQ(std::memcmp(content.data() + header.size(), records.data(), records.size() * sizeof(float)), 0);
}

TEST(Scenes, HeaderDeclaresTheRecordInItsCanonicalOrder) {
    SceneOptions options = smallScene(3, false);
    options.source = "makescene";
    options.dataType = "town";
    options.epsg = 32632;
    options.offset = scenes::Point{500137.0225, 5414437.5, -0.25};
    options.scale = scenes::Point{1.0, 1.0, 2.0};
    options.comments = {"a line of its own", "minx  nonsense"};
    EXPECT_EQ(scenes::sceneHeader(options, Box{}), "ply\n"
                                                   "format binary_little_endian 1.0\n"
                                                   "comment source makescene\n"
                                                   "comment dataType town\n"
                                                   "comment epsg 32632\n"
                                                   "comment offsetx 500137.0225\n"
                                                   "comment offsety 5414437.5\n"
                                                   "comment offsetz -0.25\n"
                                                   "comment scalex 1\n"
                                                   "comment scaley 1\n"
                                                   "comment scalez 2\n"
                                                   "comment a line of its own\n"
                                                   "comment minx  nonsense\n"
                                                   "element vertex 3\n"
                                                   "property float x\n"
                                                   "property float y\n"
                                                   "property float z\n"
                                                   "property float nx\n"
                                                   "property float ny\n"
                                                   "property float nz\n"
                                                   "property float f_dc_0\n"
                                                   "property float f_dc_1\n"
                                                   "property float f_dc_2\n"
                                                   "property float opacity\n"
                                                   "property float scale_0\n"
                                                   "property float scale_1\n"
                                                   "property float scale_2\n"
                                                   "property float rot_0\n"
                                                   "property float rot_1\n"
                                                   "property float rot_2\n"
                                                   "property float rot_3\n"
                                                   "end_header\n");
}

TEST(Scenes, HeaderWithCoefficientsDeclaresAllOfThemAfterTheColour) {
    const std::string header = scenes::sceneHeader(smallScene(3, true), Box{});
    std::string rest = "property float f_dc_2\n";
    for (int k = 0; k < 45; ++k) {
        rest += "property float f_rest_" + std::to_string(k) + "\n";
    }
    rest += "property float opacity\n";
    EXPECT_NE(header.find(rest), std::string::npos) << header;
}

TEST(Scenes, StatedBoundsReadBackExactly) {
    SceneOptions options = smallScene(5, false);
    options.statedBounds = true;
    Box bounds;
    bounds.min = {-123456.789f, -0.1f, -3.0e-9f};
    bounds.max = {1.0e9f, 0.33333334f, 312.73770f};
    const std::string header = scenes::sceneHeader(options, bounds);
    const std::string keys = "xyz";
    for (std::size_t axis = 0; axis < 3; ++axis) {
        EXPECT_EQ(statedBound(header, std::string("min") + keys[axis]), bounds.min[axis]) << header;
        EXPECT_EQ(statedBound(header, std::string("max") + keys[axis]), bounds.max[axis]) << header;
    }
    EXPECT_EQ(header.size(), scenes::sceneHeader(options, Box{}).size());
}

TEST_F(SceneFile, StatesTheExactBoxWhichSpansTheExtents) {
    SceneOptions options = smallScene(30'000, false);
    options.statedBounds = true;
    options.extentX = 80.0;
    options.extentY = 310.5;
    options.centre = {1000.0, -20.0, 55.0};
    const Box written = scenes::writeScene(folder / "scene.ply", options);
    const Box box = scenes::boxOf(scenes::sceneRecords(options), floatsWithout);
    EXPECT_EQ(written.min, box.min);
    EXPECT_EQ(written.max, box.max);
    const std::string content = contentOf(folder / "scene.ply");
    const std::string header = content.substr(0, content.find("end_header"));
    EXPECT_EQ(statedBound(header, "minx"), box.min[0]);
    EXPECT_EQ(statedBound(header, "miny"), box.min[1]);
    EXPECT_EQ(statedBound(header, "minz"), box.min[2]);
    EXPECT_EQ(statedBound(header, "maxx"), box.max[0]);
    EXPECT_EQ(statedBound(header, "maxy"), box.max[1]);
    EXPECT_EQ(statedBound(header, "maxz"), box.max[2]);
    EXPECT_EQ(box.min[0], 960.0f);
    EXPECT_EQ(box.max[0], 1040.0f);
    EXPECT_EQ(box.min[1], -175.25f);
    EXPECT_EQ(box.max[1], 135.25f);
    EXPECT_GT(box.min[2], 53.0f);
    EXPECT_LT(box.max[2], 95.0f);
}

TEST(Scenes, TwoSplatsAlreadySpanTheExtents) {
    const Box box = scenes::boxOf(scenes::sceneRecords(smallScene(2, false)), floatsWithout);
    EXPECT_EQ(box.min[0], -125.0f);
    EXPECT_EQ(box.max[0], 125.0f);
    EXPECT_EQ(box.min[1], -100.0f);
    EXPECT_EQ(box.max[1], 100.0f);
}

TEST(Scenes, ValuesAreFiniteAndDistributedAsATrainersAre) {
    const std::size_t splats = 20'000;
    const std::vector<float> records = scenes::sceneRecords(smallScene(splats, true));
    double coefficientSquares[3] = {0.0, 0.0, 0.0};
    std::size_t nearlyOpaque = 0;
    std::size_t unitLength = 0;
    std::set<std::size_t> largest;
    for (std::size_t k = 0; k < splats; ++k) {
        const float* r = &records[k * floatsWith];
        for (std::size_t f = 0; f < floatsWith; ++f) {
            ASSERT_TRUE(std::isfinite(r[f])) << "splat " << k << " float " << f;
        }
        EXPECT_EQ(std::fabs(r[3]) + std::fabs(r[4]) + std::fabs(r[5]), 0.0f);
        for (std::size_t f = 6; f < 9; ++f) {
            ASSERT_LT(std::fabs(r[f]), 4.0f);
        }
        for (std::size_t f = 9; f < 54; ++f) {
            ASSERT_LT(std::fabs(r[f]), 1.5f);
            const std::size_t place = (f - 9) % 15;
            coefficientSquares[place < 3 ? 0 : (place < 8 ? 1 : 2)] += r[f] * r[f] /
                                                                       (place < 3   ? 3.0
                                                                        : place < 8 ? 5.0
                                                                                    : 7.0);
        }
        ASSERT_GT(r[54], -8.0f);
        ASSERT_LT(r[54], 12.0f);
        nearlyOpaque += r[54] > 2.0f ? 1 : 0;
        for (std::size_t f = 55; f < 58; ++f) {
            ASSERT_GT(r[f], -12.0f);
            ASSERT_LT(r[f], 5.0f);
        }
        const double norm = std::sqrt(r[58] * r[58] + r[59] * r[59] + r[60] * r[60] + r[61] * r[61]);
        ASSERT_GT(norm, 0.39);
        ASSERT_LT(norm, 1.61);
        unitLength += std::fabs(norm - 1.0) < 1e-4 ? 1 : 0;
        std::size_t best = 0;
        for (std::size_t f = 1; f < 4; ++f) {
            best = std::fabs(r[58 + f]) > std::fabs(r[58 + best]) ? f : best;
        }
        largest.insert(best);
    }
    EXPECT_GT(coefficientSquares[0], 2.0 * coefficientSquares[1]);
    EXPECT_GT(coefficientSquares[1], 2.0 * coefficientSquares[2]);
    EXPECT_GT(nearlyOpaque, splats / 2);
    EXPECT_LT(unitLength, splats / 100);
    EXPECT_EQ(largest.size(), 4u);
}

TEST(Scenes, DiscsLieFlatOnTheSurfaces) {
    // One axis of every splat is parallel to the surface's normal; except for a few stretched splats it is
    // the thin one. Which of the three axes it is varies.
    SceneOptions options = smallScene(5'000, false);
    options.normals = true;
    const std::vector<float> records = scenes::sceneRecords(options);
    std::size_t thin = 0;
    std::set<std::size_t> axes;
    for (std::size_t k = 0; k < 5'000; ++k) {
        const float* r = &records[k * floatsWithout];
        ASSERT_NEAR(r[3] * r[3] + r[4] * r[4] + r[5] * r[5], 1.0, 1e-5);
        const double n = std::sqrt(r[13] * r[13] + r[14] * r[14] + r[15] * r[15] + r[16] * r[16]);
        const double w = r[13] / n;
        const double x = r[14] / n;
        const double y = r[15] / n;
        const double z = r[16] / n;
        const double columns[3][3] = {{1 - 2 * (y * y + z * z), 2 * (x * y + w * z), 2 * (x * z - w * y)},
                                      {2 * (x * y - w * z), 1 - 2 * (x * x + z * z), 2 * (y * z + w * x)},
                                      {2 * (x * z + w * y), 2 * (y * z - w * x), 1 - 2 * (x * x + y * y)}};
        std::size_t upright = 0;
        double best = 0.0;
        for (std::size_t axis = 0; axis < 3; ++axis) {
            const double along =
                std::fabs(columns[axis][0] * r[3] + columns[axis][1] * r[4] + columns[axis][2] * r[5]);
            upright = along > best ? axis : upright;
            best = along > best ? along : best;
        }
        ASSERT_GT(best, 0.9999) << "splat " << k;
        axes.insert(upright);
        thin += r[10 + upright] <= r[10 + (upright + 1) % 3] && r[10 + upright] <= r[10 + (upright + 2) % 3]
                    ? 1
                    : 0;
    }
    EXPECT_GT(thin, 4'900u);
    EXPECT_EQ(axes.size(), 3u);
}

TEST(Scenes, OrderDecidesWhetherNeighboursInTheFileAreNeighboursInTheScene) {
    SceneOptions options = smallScene(20'000, false);
    const auto meanStep = [](const std::vector<float>& records) {
        double sum = 0.0;
        for (std::size_t at = floatsWithout; at < records.size(); at += floatsWithout) {
            sum += std::hypot(records[at] - records[at - floatsWithout],
                              records[at + 1] - records[at + 1 - floatsWithout]);
        }
        return sum / static_cast<double>(records.size() / floatsWithout);
    };
    EXPECT_GT(meanStep(scenes::sceneRecords(options)), 80.0);
    options.order = Order::grouped;
    EXPECT_LT(meanStep(scenes::sceneRecords(options)), 60.0);
}

TEST_F(SceneFile, MayHoldNoSplatOrOne) {
    for (const std::uint64_t splats : {0u, 1u}) {
        SceneOptions options = smallScene(splats, true);
        options.statedBounds = true;
        const Box bounds = scenes::writeScene(folder / "scene.ply", options);
        EXPECT_EQ(std::filesystem::file_size(folder / "scene.ply"),
                  scenes::sceneHeader(options, bounds).size() + splats * floatsWith * sizeof(float));
    }
}

TEST(Scenes, ModelsAndLargeTownsKeepTheirExtents) {
    for (const double extent : {0.05, 12.0, 5'000.0, 100'000.0}) {
        SceneOptions options = smallScene(3'000, false);
        options.extentX = extent;
        options.extentY = extent / 2;
        const Box box = scenes::boxOf(scenes::sceneRecords(options), floatsWithout);
        EXPECT_EQ(box.max[0], static_cast<float>(extent / 2));
        EXPECT_EQ(box.min[1], static_cast<float>(-extent / 4));
        EXPECT_LT(box.max[2], extent);
        EXPECT_GT(box.max[2], 0.0f);
    }
}

TEST_F(SceneFile, RefusesWhatNoSceneHas) {
    const auto refused = [this](auto change) {
        SceneOptions options = smallScene(10, true);
        change(options);
        EXPECT_THROW(scenes::writeScene(folder / "scene.ply", options), std::invalid_argument);
        EXPECT_FALSE(std::filesystem::exists(folder / "scene.ply"));
    };
    refused([](SceneOptions& o) { o.extentX = 0.0; });
    refused([](SceneOptions& o) { o.extentY = -5.0; });
    refused([](SceneOptions& o) { o.extentX = std::numeric_limits<double>::quiet_NaN(); });
    refused([](SceneOptions& o) { o.extentX = 201.0 * o.extentY; });
    refused([](SceneOptions& o) { o.centre.z = 2.0e9; });
    refused([](SceneOptions& o) { o.source = "two words"; });
    refused([](SceneOptions& o) { o.comments = {"two\nlines"}; });
}

TEST_F(SceneFile, SaysSoWhenTheFileCannotBeWritten) {
    try {
        scenes::writeScene(folder / "missing" / "scene.ply", smallScene(10, true));
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_NE(std::string(error.what()).find("scene.ply"), std::string::npos) << error.what();
    }
}

} // namespace
