// Checks the hashes with the baseline kernels, using the core in this process. The shipped library always
// takes the kernels for the processor that it runs on.

#include "src/kernels.h"

#include "plyconvert.h"
#include "tests/golden/golden_scenes.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace golden {
namespace {

using Tavrin::GaussionSplat::chosenKernels;
using Tavrin::GaussionSplat::Kernels;

class BaselineKernels : public testing::TestWithParam<Scene> {
protected:
    BaselineKernels() { chosenKernels = Kernels::baseline; }
    ~BaselineKernels() override { chosenKernels = before; }

private:
    Kernels before = chosenKernels;
};

void convertHere(const std::filesystem::path& input, const std::filesystem::path& output) {
    const std::int32_t result =
        plyConvert(support::pathBytes(input).c_str(), support::pathBytes(output).c_str());
    if (result != PLYCONVERT_DONE) {
        throw std::runtime_error("plyConvert returned " + std::to_string(result));
    }
}

TEST_P(BaselineKernels, GiveTheExpectedBytes) {
    const Scene& scene = GetParam();
    const support::Scratch scratch;
    EXPECT_EQ(hashesOf(scene, scratch.folder(), convertHere), expectedHashes()[scene.name]);
}

INSTANTIATE_TEST_SUITE_P(Small, BaselineKernels, testing::ValuesIn(scenesOfSize(false)),
                         [](const testing::TestParamInfo<Scene>& scene) { return scene.param.name; });

TEST(ChosenKernels, AreTheFastestThatRunHere) {
    EXPECT_EQ(chosenKernels, Tavrin::GaussionSplat::supportedKernels().front());
}

} // namespace
} // namespace golden
