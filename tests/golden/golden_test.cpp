// Compares the converted bytes of seeded scenes with the hashes in hashes.txt, which hold on every system.
//
// A hash changes only with the bytes of a dataset, and readers of datasets must be told of such a change.
// When the comparison shows nothing but the intended change, golden_print writes the new file.

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

// The reference converter gives the same hashes, so they follow from the format, not only from this library.
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
