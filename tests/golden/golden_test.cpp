// The converted bytes of seeded scenes, held to the hashes in hashes.txt, which are the same on every system.
//
// A hash changes only when the bytes of a dataset change, which readers of datasets must be told. After such
// a change, and when nothing but it shows in the comparison, golden_print makes the new file.

#include "tests/golden/golden_scenes.h"
#include "tests/reference/converter.h"
#include "tests/support/files.h"
#include "tests/support/sha256.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace golden {

namespace {

class Golden : public testing::TestWithParam<Scene> {};

TEST_P(Golden, BytesAreTheExpectedOnes) {
    const Scene& scene = GetParam();
    const support::Scratch scratch;
    const auto hashes = hashesOf(scene, scratch.folder());
    const auto expected = expectedHashes()[scene.name];
    ASSERT_EQ(hashes.at("scene.ply"), expected.at("scene.ply"))
        << "the scene itself is another one, so its dataset says nothing";
    EXPECT_EQ(hashes, expected) << "the lines that hashes.txt would hold:\n" << linesOf(scene, hashes);
}

std::string nameOf(const testing::TestParamInfo<Scene>& scene) {
    return scene.param.name;
}

// The same hashes come from the reference converter: they are the format's, not only this library's.
TEST_P(Golden, BytesAreThoseOfTheReference) {
    const Scene& scene = GetParam();
    const support::Scratch scratch;
    scenes::writeScene(scratch / "scene.ply", scene.options);
    const std::string file = support::readFile(scratch / "scene.ply");
    const reference::Dataset dataset = reference::convert(file);
    std::map<std::string, std::string> hashes{{"scene.ply", support::sha256(file)},
                                              {"data.bin", support::sha256(dataset.data)},
                                              {"index.bin", support::sha256(dataset.index)},
                                              {"converted_from_ply.ytr", support::sha256(dataset.meta)}};
    if (scene.options.coefficients) {
        hashes["shcoef.bin"] = support::sha256(dataset.coefficients);
    }
    EXPECT_EQ(hashes, expectedHashes()[scene.name]);
}

INSTANTIATE_TEST_SUITE_P(Small, Golden, testing::ValuesIn(scenesOfSize(false)), nameOf);
INSTANTIATE_TEST_SUITE_P(Large, Golden, testing::ValuesIn(scenesOfSize(true)), nameOf);

TEST(GoldenHashes, AreThoseOfTheScenesInTheList) {
    std::set<std::string> listed;
    for (const Scene& scene : goldenScenes()) {
        listed.insert(scene.name);
    }
    std::set<std::string> hashed;
    for (const auto& entry : expectedHashes()) {
        hashed.insert(entry.first);
    }
    EXPECT_EQ(hashed, listed);
}

} // namespace
} // namespace golden
