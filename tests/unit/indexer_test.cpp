#include "src/indexer.h"

#include "src/runlog.h"
#include "tests/reference/splats.h"
#include "tests/support/deathtest.h"
#include "tests/support/files.h"
#include "tests/unit/indexer_support.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

using support::Random;

struct IndexerTest : testing::Test {
    support::Scratch scratch;
    ChunkGrid gridBefore = chunkGrid;
    std::shared_ptr<BlockList> chunks = std::make_shared<BlockList>();
    std::shared_ptr<AttributeBounding> bounding = std::make_shared<AttributeBounding>();
    reference::Ranges ranges;
    std::vector<float> splats; // of all blocks

    IndexerTest() {
        chunkGrid = {.cellSizeX = 10.0f,
                     .cellSizeY = 10.0f,
                     .originX = -30.0f,
                     .originY = -30.0f,
                     .cellCountX = 7,
                     .cellCountY = 7};
        openRunLog((scratch / "log.txt").string());
    }
    ~IndexerTest() override {
        closeRunLog();
        releaseBlocks(*chunks, recordSizeWithCoefficients);
        chunkGrid = gridBefore;
    }

    void addBlocks(const std::vector<std::size_t>& counts, bool hasCoefficients) {
        Random random(110);
        for (const std::size_t count : counts) {
            const std::vector<float> block = decodedScene(random, count, hasCoefficients, 25.0f);
            chunks->push_back(blockOf(block, hasCoefficients));
            splats.insert(splats.end(), block.begin(), block.end());
        }
        ranges = rangesOf(splats, hasCoefficients);
        bounding = boundingOf(ranges, hasCoefficients);
    }

    // Run an indexer over the blocks, for a scene of this many splats.
    void runIndexer(std::uint64_t splatCount) {
        Indexer indexer(std::vector<SplatHeader>(1), scratch.folder().string());
        indexer.run(bounding, chunks, splatCount, "[label]", splatCount, std::make_shared<Params>());
    }

    // The same, and returns the text on standard output.
    std::string run(std::uint64_t splatCount) {
        return support::withPlainLineEnds(support::standardOutputOf([&] { runIndexer(splatCount); }));
    }

    std::string file(const char* name) const { return support::readFile(scratch / name); }

    // The records of both files, ordered by cell column, then row, then block order.
    std::pair<std::string, std::string> expectedRecords(bool hasCoefficients, bool single) const {
        std::map<std::uint32_t, std::pair<std::string, std::string>> cells; // by column and row
        for (std::size_t at = 0; at < splats.size(); at += recordLayout(hasCoefficients).floats) {
            const std::uint32_t key = reference::cellKey(splats[at], splats[at + 1],
                                                         {.originX = chunkGrid.originX,
                                                          .originY = chunkGrid.originY,
                                                          .cellSizeX = chunkGrid.cellSizeX,
                                                          .cellSizeY = chunkGrid.cellSizeY});
            auto& [data, coefficients] = cells[single ? 0 : key << 16 | key >> 16];
            const reference::Quantised record =
                reference::quantise(splats.data() + at, hasCoefficients, ranges);
            data.append(record.data.begin(), record.data.end());
            coefficients.append(record.packed.begin(), record.packed.end());
        }
        std::pair<std::string, std::string> files;
        for (const auto& [place, records] : cells) {
            files.first += records.first;
            files.second += records.second;
        }
        return files;
    }
};

std::string logOf(bool hasCoefficients) {
    return "INFO(indexer:29): Start Index ,need a little time ... \n"
           "INFO(indexer:38): Index finished ,Start create Data... \n"
           "INFO(indexer:" +
           std::string(hasCoefficients ? "694" : "827") +
           "): Data create finished , free file stream... \n"
           "INFO(indexer:" +
           (hasCoefficients ? "701" : "832") +
           "): Data create finished , free file stream success.\n"
           "INFO(indexer:40): Index finished ,Start create Index... \n"
           "INFO(indexer:42): Index finished ,Start create meta data \n"
           "INFO(indexer:45): All tasks finished .\n";
}

TEST_F(IndexerTest, RunWritesEveryFileOfASingleCell) {
    for (const bool hasCoefficients : {true, false}) {
        SCOPED_TRACE(hasCoefficients);
        splats.clear();
        chunks->clear();
        std::filesystem::remove(scratch / "shcoef.bin");
        addBlocks({30, 12}, hasCoefficients);
        EXPECT_EQ(run(1'000'000), "\n\n");
        const auto [data, coefficients] = expectedRecords(hasCoefficients, true);
        EXPECT_EQ(file("data.bin"), data);
        EXPECT_EQ(std::filesystem::exists(scratch / "shcoef.bin"), hasCoefficients);
        EXPECT_TRUE(!hasCoefficients || file("shcoef.bin") == coefficients);
        EXPECT_EQ(file("index.bin"), std::string("\0\0\0\0\x2A\0\0\0\0\0\0\0\0\0\0\0\x40\x05\0\0", 20)); // 42
    }
}

TEST_F(IndexerTest, RunWritesTheCellsOfAGrid) {
    addBlocks({300, 1, 120}, true);
    const std::string output = run(1'000'001);
    const auto [data, coefficients] = expectedRecords(true, false);
    EXPECT_EQ(file("data.bin"), data);
    EXPECT_EQ(file("shcoef.bin"), coefficients);
    EXPECT_EQ(output.size(), file("index.bin").size() / 20 * 2);
}

TEST_F(IndexerTest, RunLogsItsStepsInOrder) {
    for (const bool hasCoefficients : {true, false}) {
        openRunLog((scratch / "log.txt").string());
        chunks->clear();
        addBlocks({5}, hasCoefficients);
        run(5);
        EXPECT_EQ(support::withPlainLineEnds(file("log.txt")), logOf(hasCoefficients));
    }
}

TEST_F(IndexerTest, RunHandsItsArgumentsOn) {
    addBlocks({4, 4}, true);
    const auto params = std::make_shared<Params>();
    Indexer indexer(std::vector<SplatHeader>(1), scratch.folder().string());
    support::standardOutputOf([&] { indexer.run(bounding, chunks, 123'456, "[label]", 8, params); });
    EXPECT_EQ(indexer.bounding, bounding);
    EXPECT_EQ(indexer.params, params);
    EXPECT_EQ(indexer.chunks, chunks);
    EXPECT_EQ(indexer.totalSplats, 123'456u);
    EXPECT_EQ(indexer.splatCount, 8u);
    EXPECT_EQ(indexer.countLabel, "[label]");
    const std::string meta = file("converted_from_ply.ytr");
    EXPECT_NE(meta.find("\"totalSplats\": 123456,"), std::string::npos);
    EXPECT_NE(meta.find("\"splats\": [label],"), std::string::npos);
    EXPECT_NE(meta.find("\"indexDataSize\": 20,"), std::string::npos);
}

TEST_F(IndexerTest, AfterARunTheBlocksAndBuffersAreGoneAndTheLevelsStay) {
    addBlocks({4, 4}, true);
    Indexer indexer(std::vector<SplatHeader>(1), scratch.folder().string());
    support::standardOutputOf(
        [&] { indexer.run(bounding, chunks, 8, "[8]", 8, std::make_shared<Params>()); });
    EXPECT_EQ(*chunks, BlockList(2));
    EXPECT_EQ(indexer.indexBuffer, nullptr);
    ASSERT_EQ(indexer.levels->size(), 1u);
    EXPECT_EQ(indexer.levels->at(0)->splatCount, 8u);
    EXPECT_TRUE(indexer.levels->at(0)->cells->at(0)->empty());
}

TEST_F(IndexerTest, AnEmptyBlockListEndsTheProcess) {
    bounding->hasShcoef = true;
    EXPECT_PROCESS_EXIT(runIndexer(0), support::statusMinusOne,
                        "^ERROR.indexer:548.: cannot GET lod0 data\n$");
    bounding->hasShcoef = false;
    EXPECT_PROCESS_EXIT(runIndexer(0), support::statusMinusOne,
                        "^ERROR.indexer:708.: cannot GET lod0 data\n$");
}

// A level above 0 alone is built, but there is nothing to write.
TEST_F(IndexerTest, BlocksOfOtherLevelsAloneEndTheProcess) {
    addBlocks({4}, true);
    chunks->front()->level = 1;
    EXPECT_PROCESS_EXIT(runIndexer(4), support::statusMinusOne,
                        "^ERROR.indexer:548.: cannot GET lod0 data\n$");
}

} // namespace

} // namespace Tavrin::GaussionSplat
