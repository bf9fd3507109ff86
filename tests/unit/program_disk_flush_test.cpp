// Flushing files to the disk in the background.
#include "program/system/disk_flush.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

struct DiskFlushTest : testing::Test {
    support::Scratch scratch;

    fs::path fileOf(const std::string& name, std::size_t bytes) const {
        support::writeFile(scratch / name, std::string(bytes, 'x'));
        return scratch / name;
    }
};

void waitForEnd(const DiskFlush& flush) {
    double share = flush.share();
    while (!flush.waitFor(std::chrono::milliseconds(1))) {
        EXPECT_GE(flush.share(), share) << "it goes on";
        share = flush.share();
        EXPECT_LE(share, 1.0);
    }
}

TEST_F(DiskFlushTest, EndsWhenFilesAndFolderAreOnTheDisk) {
    DiskFlush flush({fileOf("one", 40'000'000), fileOf("none", 0), fileOf("two", 1), scratch.folder()});
    waitForEnd(flush);
    EXPECT_EQ(flush.share(), 1.0);
    EXPECT_FALSE(flush.end().error);
}

TEST_F(DiskFlushTest, WithoutBytesThereIsNoShare) {
    DiskFlush flush({scratch.folder()});
    waitForEnd(flush);
    EXPECT_EQ(flush.share(), 0.0);
    EXPECT_FALSE(flush.end().error);
}

TEST_F(DiskFlushTest, NamesTheFirstPathThatFails) {
    DiskFlush flush({fileOf("one", 1000), scratch / "gone", scratch / "gone as well", scratch.folder()});
    const FlushEnd end = flush.end();
    EXPECT_EQ(end.error, std::errc::no_such_file_or_directory);
    EXPECT_EQ(end.path, scratch / "gone");
}

// Giving up does not wait for the disk. Later files may or may not have been flushed by then.
TEST_F(DiskFlushTest, MayBeGivenUp) {
    std::vector<fs::path> paths;
    for (int i = 0; i < 20; ++i) {
        paths.push_back(fileOf(std::to_string(i), 100'000));
    }
    { const DiskFlush flush(paths); }
    for (const fs::path& path : paths) {
        EXPECT_TRUE(fs::remove(path)) << "nothing holds it";
    }
}

} // namespace
} // namespace Tavrin::SplatProgram
