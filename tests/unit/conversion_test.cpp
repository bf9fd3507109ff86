// Whole conversions in blocks of a few splats: with every block size, and many in one process.

#include "plyconvert.h"
#include "src/blocks.h"
#include "src/chunker.h"
#include "src/splatheader.h"
#include "tests/support/deathtest.h"
#include "tests/support/files.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

using support::PlyFile;

struct ConversionTest : testing::Test {
    support::Scratch scratch;
    std::string output = (scratch / "out").string();
    std::uint64_t blockSplatsBefore = blockSplats;

    ~ConversionTest() override { blockSplats = blockSplatsBefore; }

    std::string write(const PlyFile& file, const std::string& name) const {
        file.write(scratch / name);
        return (scratch / name).string();
    }

    // Every file of the dataset with its name in front, without the digits of the guid.
    std::string convert(const std::string& input) const {
        EXPECT_EQ(plyConvert(input.c_str(), output.c_str()), PLYCONVERT_DONE);
        std::string all;
        for (const std::string& name : support::filesUnder(output)) {
            std::string bytes = support::readFile(scratch / "out" / name);
            const std::size_t guid = bytes.find("\"guid\": \"");
            if (name == "converted_from_ply.ytr" && guid != bytes.npos) {
                bytes.replace(guid + 9, 32, 32, '?');
            }
            all += name + '\n' + bytes;
        }
        return all;
    }
};

PlyFile sceneOf(std::uint64_t seed, std::size_t count, bool coefficients, bool bounds) {
    PlyFile file = support::randomFile(seed, count, coefficients);
    if (bounds) { // without bounds the file is scanned for them
        file.comments = {"comment minx -20", "comment maxx 20", "comment miny -15", "comment maxy 15"};
    }
    return file;
}

#if defined(__linux__)
// Open files and threads of this process.
std::size_t countOf(const char* what) {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator(std::string("/proc/self/") + what)) {
        ++count;
    }
    return count;
}
#endif

TEST_F(ConversionTest, BlocksOfEverySizeGiveTheSameBytes) {
    for (const bool coefficients : {false, true}) {
        PlyFile file = sceneOf(70, 40, coefficients, false);
        support::Random random(71);
        for (int i = 0; i < 40; ++i) {
            file.add(support::awkwardSplat(random));
        }
        const std::string input = write(file, "scene.ply");
        const std::string whole = convert(input);
        for (const std::uint64_t block : {1u, 2u, 7u, 39u, 79u, 80u, 81u}) {
            blockSplats = block;
            EXPECT_EQ(convert(input), whole) << "blocks of " << block;
        }
        blockSplats = blockSplatsBefore;
    }
}

// Neither the bytes nor the resources of the process depend on the number of earlier conversions.
TEST_F(ConversionTest, AThousandInOneProcess) {
    blockSplats = 7;
    std::vector<std::string> inputs;
    std::vector<std::string> expected;
    for (std::uint64_t seed = 0; seed < 8; ++seed) {
        inputs.push_back(write(sceneOf(seed, 10 + 5 * seed, seed % 2 == 1, seed % 4 != 3),
                               "scene" + std::to_string(seed) + ".ply"));
        expected.push_back(convert(inputs.back()));
    }
#if defined(__linux__)
    const std::size_t files = countOf("fd");
    const std::size_t threads = countOf("task");
#endif
    for (std::size_t i = 0; i < 1000; ++i) {
        ASSERT_EQ(convert(inputs[i % inputs.size()]), expected[i % inputs.size()]) << "conversion " << i;
    }
#if defined(__linux__)
    EXPECT_EQ(countOf("fd"), files);
    EXPECT_EQ(countOf("task"), threads);
#endif
}

Chunker chunkerOf(const std::string& path, std::int64_t count, std::uint64_t threads) {
    SplatHeader header;
    header.path = path;
    header.vertexCount = count;
    return {.bounding = {}, .name = {}, .headers = {header}, .flag = 1, .threadCount = threads};
}

std::shared_ptr<AttributeBounding> withoutCoefficients() {
    auto bounding = std::make_shared<AttributeBounding>();
    bounding->hasShcoef = false;
    return bounding;
}

TEST_F(ConversionTest, WithoutWorkersAndBlocksChunkingReturns) {
    const auto chunks = std::make_shared<BlockList>();
    chunkerOf(write({}, "empty.ply"), 0, 0).doChunking(withoutCoefficients(), chunks, output);
    EXPECT_TRUE(chunks->empty());
}

TEST_F(ConversionTest, OneWorkerDecodesEveryBlock) {
    blockSplats = 4;
    const auto chunks = std::make_shared<BlockList>();
    chunkerOf(write(sceneOf(72, 10, false, true), "scene.ply"), 10, 1)
        .doChunking(withoutCoefficients(), chunks, output);
    ASSERT_EQ(chunks->size(), 3u);
    EXPECT_EQ((*chunks)[0]->splatCount, 4u);
    EXPECT_EQ((*chunks)[2]->splatCount, 2u);
    releaseBlocks(*chunks, recordSizeWithoutCoefficients);
}

#if !defined(_WIN32)

// If the system cannot tell its hardware threads, there are no workers, and waiting for a block never ends.
TEST_F(ConversionTest, WithoutWorkersABlockIsWaitedForForever) {
    const std::string input = write(sceneOf(73, 3, false, true), "scene.ply");
    EXPECT_PROCESS_END(
        {
            alarm(1); // doChunking alone would not end
            chunkerOf(input, 3, 0).doChunking(withoutCoefficients(), std::make_shared<BlockList>(), output);
        },
        testing::KilledBySignal(SIGALRM), "");
}

#endif

} // namespace

} // namespace Tavrin::GaussionSplat
