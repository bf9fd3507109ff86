// Opening datasets, reading their records in order, loading small ones whole.
#include "reader/dataset.h"
#include "tests/support/dataset_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace Tavrin::SplatReader;
using DatasetWriter::Files;
using DatasetWriter::TemporaryFolder;
using testing::HasSubstr;

std::string openError(const std::filesystem::path& folder) {
    try {
        Dataset::open(folder);
    } catch (const DatasetError& error) {
        return error.what();
    }
    return "opened";
}

TEST(ReaderDataset, LoadsAOneCellSceneWhole) {
    const TemporaryFolder folder;
    const std::vector<DatasetWriter::StoredSplat> scene = DatasetWriter::smallScene();
    writeFiles(folder.path(), DatasetWriter::oneCellFiles(scene));
    const Dataset dataset = Dataset::open(folder.path());
    EXPECT_EQ(dataset.cellCount(), 1u);
    EXPECT_EQ(dataset.recordCount(), 5u);
    EXPECT_EQ(dataset.indexedCount(), 5u);
    EXPECT_EQ(dataset.leftOut(), 0u);
    EXPECT_EQ(dataset.coefficientSize(), 64u);
    const std::vector<LoadedSplat> splats = loadWhole(dataset);
    ASSERT_EQ(splats.size(), 5u);
    for (std::size_t i = 0; i < splats.size(); ++i) {
        EXPECT_EQ(splats[i].index, i);
        EXPECT_EQ(splats[i].record.position, scene[i].position);
        EXPECT_EQ(splats[i].splat.position, scene[i].position);
        EXPECT_EQ(splats[i].record.opacity, scene[i].colour[3]);
        EXPECT_EQ(splats[i].record.colour[1], scene[i].colour[1]);
        EXPECT_EQ(splats[i].record.scale, scene[i].scale);
        EXPECT_EQ(splats[i].record.normal, scene[i].normal);
        EXPECT_EQ(splats[i].record.rotation, scene[i].rotation);
        EXPECT_EQ(splats[i].coefficientRecord.size(), 64u);
    }
    EXPECT_EQ(splats[4].splat.opacity, 1.0);
    EXPECT_NEAR(splats[4].splat.coefficients[44], 0.5, 0.5 / 2047.5);
}

TEST(ReaderDataset, LoadsAGridSceneCellByCell) {
    const TemporaryFolder folder;
    writeFiles(folder.path(), DatasetWriter::gridScene());
    const Dataset dataset = Dataset::open(folder.path());
    EXPECT_EQ(dataset.cellCount(), 4u);
    EXPECT_EQ(dataset.leftOut(), 1'000'001u - 7u);
    EXPECT_FALSE(dataset.grid().oneCell);
    EXPECT_EQ(dataset.grid().countX, 4);
    EXPECT_EQ(dataset.grid().countY, 3);
    EXPECT_EQ(dataset.range(2, 0).count, 3u);
    EXPECT_EQ(dataset.range(2, 0).offset, 96u);
    const std::vector<LoadedSplat> splats = loadWhole(dataset);
    ASSERT_EQ(splats.size(), 7u);
    EXPECT_EQ(splats[3].cellKey, 1u);
    for (const LoadedSplat& splat : splats) {
        EXPECT_EQ(dataset.grid().keyAt(splat.record.position[0], splat.record.position[1]), splat.cellKey);
    }
}

TEST(ReaderDataset, ReadsMoreThanOneLevelAndTheRawForm) {
    const TemporaryFolder folder;
    DatasetWriter::MetaFields fields;
    fields.totalLevel = 3;
    fields.encoding = "DEFAULT";
    Files files = DatasetWriter::oneCellFiles(DatasetWriter::smallScene(), fields);
    files.index = DatasetWriter::indexEntry(0, {{2, 0}, {0, 0}, {3, 64}});
    files.coefficients.clear();
    for (int i = 0; i < 5 * 48; ++i) {
        DatasetWriter::putFloat(files.coefficients, static_cast<float>(i));
    }
    writeFiles(folder.path(), files);
    const std::vector<LoadedSplat> splats = loadWhole(Dataset::open(folder.path()));
    ASSERT_EQ(splats.size(), 5u);
    EXPECT_EQ(splats[1].level, 0u);
    EXPECT_EQ(splats[2].level, 2u);
    EXPECT_EQ(splats[1].splat.coefficients[0], 48.0);  // red of coefficient 0
    EXPECT_EQ(splats[1].splat.coefficients[15], 49.0); // green of coefficient 0
    EXPECT_EQ(splats[1].splat.coefficients[1], 51.0);  // red of coefficient 1
}

TEST(ReaderDataset, WalksRecordsThroughASmallWindow) {
    const TemporaryFolder folder;
    std::vector<DatasetWriter::StoredSplat> scene;
    for (int i = 0; i < 1000; ++i) {
        scene.push_back(DatasetWriter::splatAt(static_cast<float>(i), 0));
    }
    writeFiles(folder.path(), DatasetWriter::oneCellFiles(scene));
    const Dataset dataset = Dataset::open(folder.path());
    for (const std::size_t window : {1u, 64u, 100u, 777u, 1u << 20}) {
        RecordCursor cursor = dataset.records(10, 900, window);
        RecordCursor::View view{};
        std::uint64_t expected = 10;
        while (cursor.next(view)) {
            ASSERT_EQ(view.index, expected);
            ASSERT_EQ(loadRecord(view.data).position[0], static_cast<float>(expected));
            ++expected;
        }
        EXPECT_EQ(expected, 910u);
    }
    EXPECT_THROW(dataset.records(900, 101), DatasetError);
    EXPECT_THROW(dataset.records(UINT64_MAX, 1), DatasetError);
    EXPECT_THROW(dataset.records(1, UINT64_MAX), DatasetError);
}

TEST(ReaderDataset, AFileThatShrinksMeanwhileIsReported) {
    const TemporaryFolder folder;
    writeFiles(folder.path(), DatasetWriter::oneCellFiles(DatasetWriter::smallScene()));
    const Dataset dataset = Dataset::open(folder.path());
    std::filesystem::resize_file(folder.path() / "shcoef.bin", 100);
    RecordCursor cursor = dataset.records(0, 5);
    RecordCursor::View view{};
    EXPECT_THROW(cursor.next(view), DatasetError);
}

TEST(ReaderDataset, WithoutCoefficientsThereIsNoCoefficientFile) {
    const TemporaryFolder folder;
    DatasetWriter::MetaFields fields;
    fields.fileType = "Portable";
    writeFiles(folder.path(), DatasetWriter::oneCellFiles(DatasetWriter::smallScene(), fields));
    const Dataset dataset = Dataset::open(folder.path());
    EXPECT_EQ(dataset.coefficientSize(), 0u);
    for (const LoadedSplat& splat : loadWhole(dataset)) {
        EXPECT_TRUE(splat.coefficientRecord.empty());
        EXPECT_EQ(splat.splat.coefficients[7], 0.0);
    }
}

TEST(ReaderDataset, WhatIsNoDatasetIsRefusedWithOneLine) {
    const TemporaryFolder folder;
    EXPECT_THAT(openError(folder.path() / "none"),
                HasSubstr("converted_from_ply.ytr, byte 0: expected a file, found none"));
    EXPECT_THAT(openError(folder.path()), HasSubstr("expected a file, found none"));
    writeFiles(folder.path(), DatasetWriter::oneCellFiles(DatasetWriter::smallScene()));
    std::filesystem::remove(folder.path() / "index.bin");
    EXPECT_THAT(openError(folder.path()), HasSubstr("index.bin, byte 0: expected a file"));
    std::filesystem::create_directory(folder.path() / "index.bin");
    EXPECT_THAT(openError(folder.path()), HasSubstr("found something else"));
}

TEST(ReaderDataset, LyingCountsAreRefusedBeforeAnythingIsAllocated) {
    const TemporaryFolder folder;
    Files files = DatasetWriter::oneCellFiles(DatasetWriter::smallScene());
    files.index = DatasetWriter::indexEntry(0, {{4'294'967'295u, 0}});
    writeFiles(folder.path(), files);
    EXPECT_THAT(
        openError(folder.path()),
        HasSubstr("index.bin, byte 4: expected a range inside the 5 records of data.bin, found 4294967295"));
    files.index = DatasetWriter::indexEntry(0, {{1, 0xFFFFFFFFFFFFFFE0u}});
    writeFiles(folder.path(), files);
    EXPECT_THAT(openError(folder.path()), HasSubstr("from byte 18446744073709551584"));
    files.index.resize(19);
    writeFiles(folder.path(), files);
    EXPECT_THAT(openError(folder.path()),
                HasSubstr("byte 0: expected entries of 20 bytes, found 19 bytes left over"));
}

TEST(ReaderDataset, HugeFilesWithoutContentAreRefused) {
#if defined(_WIN32)
    GTEST_SKIP() << "resize_file gives a file no more than the free room of the disk here";
#endif
    const TemporaryFolder folder;
    writeFiles(folder.path(), DatasetWriter::oneCellFiles(DatasetWriter::smallScene()));
    std::filesystem::resize_file(folder.path() / "index.bin", 20ull << 36); // sparse, 1.25 TiB
    EXPECT_THAT(openError(folder.path()), HasSubstr("expected the end of the index"));
    std::filesystem::resize_file(folder.path() / "index.bin", 20);
    std::filesystem::resize_file(folder.path() / "converted_from_ply.ytr", 1ull << 40);
    EXPECT_THAT(openError(folder.path()), HasSubstr("expected the end of the document"));
}

TEST(ReaderDataset, LoadWholeKeepsItsLimit) {
    const TemporaryFolder folder;
    writeFiles(folder.path(), DatasetWriter::oneCellFiles(DatasetWriter::smallScene()));
    EXPECT_THROW(loadWhole(Dataset::open(folder.path()), 4), DatasetError);
    EXPECT_EQ(loadWhole(Dataset::open(folder.path()), 5).size(), 5u);
}

TEST(ReaderGrid, ChoosesTheCellLengthsByCountAndExtent) {
    const auto lengths = [](std::uint64_t splats, double x, double y) {
        return expectedCellLengths(splats, {0, 0, 0}, {x, y, 1});
    };
    EXPECT_EQ(lengths(999'999, 12.3, 4).x, static_cast<double>(12.3f));
    EXPECT_EQ(lengths(999'999, 12.3, 4).y, 4.0);
    EXPECT_EQ(lengths(1'000'000, 250, 80).x, 30.0);
    EXPECT_EQ(lengths(8'000'000, 50, 50).y, 30.0);
    EXPECT_EQ(lengths(8'000'001, 50, 50).y, 10.0);
    EXPECT_EQ(lengths(8'000'000, 500, 50).y, 30.0);
    EXPECT_EQ(lengths(8'000'001, 500, 50).y, 15.0);
    EXPECT_EQ(lengths(100'000'000, 100, 50).y, 15.0);
    EXPECT_EQ(lengths(100'000'001, 100, 50).x, 10.0);
}

TEST(ReaderGrid, KeysFollowTheSinglePrecisionRule) {
    Meta meta;
    meta.totalSplats = 1'000'001;
    meta.cellLengthX = meta.cellLengthY = 30;
    meta.boundingMin = {0.1, -5, 0};
    meta.boundingMax = {250, 75, 1};
    const Grid grid = gridOf(meta);
    EXPECT_EQ(grid.countX, 9);
    EXPECT_EQ(grid.countY, 3);
    EXPECT_EQ(grid.keyAt(0.1f, -5.0f), 0u);
    EXPECT_EQ(grid.keyAt(30.1f, -5.0f), 1u);
    EXPECT_EQ(grid.keyAt(0.1f, 25.0f), 1u << 16);
    EXPECT_EQ(grid.keyAt(0.0F, 25.0F), 0xFFFFFFFFu); // a negative column sets the high half too
    EXPECT_EQ(grid.keyAt(0.1f + 70'000.0f * 30.0f, -5.0f), 70'000u); // and a far column overflows into it
    EXPECT_EQ(grid.keyAt(std::numeric_limits<float>::quiet_NaN(), 25.0f), 1u << 16);
    EXPECT_EQ(grid.keyAt(std::numeric_limits<float>::infinity(), -5.0f), 0u);
    meta.totalSplats = 1'000'000;
    EXPECT_EQ(gridOf(meta).keyAt(200.0f, 60.0f), 0u);
}

} // namespace
