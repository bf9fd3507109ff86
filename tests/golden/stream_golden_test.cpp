// Converts the golden scenes by the stream. The hashes are those of the library.

#include "src/splatheader.h"
#include "stream/canonical_scene.h"
#include "stream/conversion.h"
#include "tests/golden/golden_scenes.h"
#include "tests/support/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace golden {

namespace {

using namespace Tavrin;

void stream(const std::filesystem::path& input, const std::filesystem::path& output, unsigned threads) {
    GaussionSplat::Params params;
    const GaussionSplat::SplatHeader header =
        GaussionSplat::readSplatHeader(support::pathBytes(input), params);
    const auto source = SplatStream::openCanonicalScene(input, header, params);
    std::filesystem::create_directories(output);
    SplatStream::Settings settings;
    settings.threads = threads;
    const SplatStream::Measured measured = SplatStream::measure(*source, settings);
    SplatStream::writeDataset(*source, measured, support::pathBytes(input), output, settings);
}

class StreamGolden : public testing::TestWithParam<Scene> {};

TEST_P(StreamGolden, BytesAreTheExpectedOnes) {
    const Scene& scene = GetParam();
    const support::Scratch scratch;
    const auto converter = [](const std::filesystem::path& input, const std::filesystem::path& output) {
        stream(input, output, 3);
    };
    EXPECT_EQ(hashesOf(scene, scratch.folder(), converter), expectedHashes()[scene.name]);
}

std::string nameOf(const testing::TestParamInfo<Scene>& scene) {
    return scene.param.name;
}

INSTANTIATE_TEST_SUITE_P(Small, StreamGolden, testing::ValuesIn(scenesOfSize(false)), nameOf);
INSTANTIATE_TEST_SUITE_P(Large, StreamGolden, testing::ValuesIn(scenesOfSize(true)), nameOf);

} // namespace
} // namespace golden
