// The program's system functions.

#include "program/system/platform.h"

#include "tests/support/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

class Platform : public testing::Test {
protected:
    support::Scratch scratch;
};

using PlatformPaths = Platform;
using PlatformFolders = Platform;
using PlatformLock = Platform;

TEST_F(PlatformPaths, AreUtf8InTheProgramsTexts) {
    EXPECT_EQ(pathFromText("\xC3\xA4 \xE6\xA3\xAE \xF0\x9F\x8C\xB2").native(), L"\u00E4 \u68EE \U0001F332");
    EXPECT_EQ(textFromPath(L"\u00E4 \u68EE \U0001F332"), "\xC3\xA4 \xE6\xA3\xAE \xF0\x9F\x8C\xB2");
    EXPECT_EQ(pathFromText("").native(), L"");
    EXPECT_EQ(textFromPath(L""), "");
}

TEST_F(PlatformPaths, LoseASeparatorAtTheirEndUnlessItIsTheRoots) {
    EXPECT_EQ(pathFromText("a\\b\\").native(), L"a\\b");
    EXPECT_EQ(pathFromText("a/b//").native(), L"a/b");
    EXPECT_EQ(pathFromText("C:\\").native(), L"C:\\");
    EXPECT_EQ(pathFromText("/").native(), L"/");
}

// This process has no manifest, so its code page is the system's own.
TEST_F(PlatformPaths, AreGivenToTheConverterInTheAnsiCodePageOrNotAtAll) {
    if (GetACP() != 1252) {
        GTEST_SKIP() << "the bytes are those of code page 1252, not of " << GetACP();
    }
    EXPECT_EQ(converterPath(L"C:\\B\u00E4ume\\a b.ply"), "C:\\B\xE4ume\\a b.ply");
    EXPECT_EQ(converterPath(L"\u68EE.ply"), std::nullopt);
    EXPECT_EQ(converterPath(L"\u0101.ply"), std::nullopt) << "a long a is no a";
}

TEST_F(PlatformPaths, AreResolvedThoughTheirEndIsMissing) {
    std::error_code error;
    fs::create_directories(scratch / "Real");
    const fs::path real = resolvedPath(scratch / "Real", error);
    EXPECT_TRUE(real.is_absolute()) << real;
    EXPECT_EQ(resolvedPath(scratch / "REAL" / "no" / "such", error), real / "no" / "such");
    EXPECT_EQ(resolvedPath(scratch / "none" / ".." / "Real", error), real);
    EXPECT_FALSE(error);
}

TEST_F(PlatformPaths, OfOneFileHaveOneIdentity) {
    support::writeFile(scratch / "a", "1");
    support::writeFile(scratch / "b", "1");
    const auto identity = identityOf(scratch / "a");
    ASSERT_TRUE(identity);
    EXPECT_EQ(identityOf(scratch / "A"), identity);
    EXPECT_EQ(identityOf(scratch.folder() / "." / "a"), identity);
    EXPECT_NE(identityOf(scratch / "b"), identity);
    EXPECT_TRUE(identityOf(scratch.folder()));
    EXPECT_FALSE(identityOf(scratch / "none"));
}

TEST_F(PlatformFolders, AreRenamedInPlaceOfNothingAndOfEmptyOnesAlone) {
    fs::create_directories(scratch / "new");
    support::writeFile(scratch / "new" / "file", "new");
    EXPECT_EQ(exchangeNames(scratch / "new", scratch / "old"), std::errc::function_not_supported);
    EXPECT_FALSE(renameFolder(scratch / "new", scratch / "moved"));
    fs::create_directories(scratch / "empty");
    EXPECT_FALSE(renameFolder(scratch / "moved", scratch / "empty"));
    EXPECT_EQ(support::readFile(scratch / "empty" / "file"), "new");

    fs::create_directories(scratch / "full");
    support::writeFile(scratch / "full" / "file", "old");
    EXPECT_TRUE(renameFolder(scratch / "empty", scratch / "full"));
    EXPECT_EQ(support::readFile(scratch / "full" / "file"), "old");
    EXPECT_TRUE(renameFolder(scratch / "none", scratch / "some"));
}

TEST_F(PlatformFolders, AreFlushedAndWrittenTo) {
    support::writeFile(scratch / "file", "1");
    EXPECT_FALSE(flushToDisk(scratch / "file"));
    EXPECT_FALSE(flushToDisk(scratch.folder()));
    EXPECT_TRUE(flushToDisk(scratch / "none"));
    EXPECT_EQ(flushToDisk(scratch / "file", [](std::uint64_t) { return false; }),
              std::errc::operation_canceled);
    EXPECT_FALSE(checkWritable(scratch.folder()));
    EXPECT_TRUE(checkWritable(scratch / "none"));
    EXPECT_FALSE(checkReadable(scratch / "file"));
    EXPECT_TRUE(checkReadable(scratch / "none"));
    EXPECT_FALSE(isMountPoint(scratch.folder()));
    EXPECT_TRUE(isMountPoint(fs::absolute(scratch.folder()).root_path()));
}

TEST_F(PlatformLock, IsHeldOnceAndLeavesNoFile) {
    std::error_code error;
    support::writeFile(scratch / "lock", "of a dead run");
    std::unique_ptr<LockFile> lock = LockFile::take(scratch / "lock", error);
    ASSERT_TRUE(lock) << error.message();
    EXPECT_FALSE(LockFile::take(scratch / "lock", error));
    EXPECT_FALSE(error) << error.message();
    lock.reset();
    EXPECT_FALSE(fs::exists(scratch / "lock"));
    EXPECT_TRUE(LockFile::take(scratch / "lock", error));
    EXPECT_FALSE(LockFile::take(scratch / "none" / "lock", error));
    EXPECT_TRUE(error);
}

TEST(PlatformMemory, IsNoMoreThanTheMachines) {
    MEMORYSTATUSEX machine = {};
    machine.dwLength = sizeof machine;
    ASSERT_TRUE(GlobalMemoryStatusEx(&machine));
    EXPECT_GT(availableMemory(), 0u);
    EXPECT_LE(availableMemory(), machine.ullTotalPhys);
}

TEST(PlatformProcess, IsNoneWithAnIdThatTheSystemGivesNobody) {
    EXPECT_FALSE(processMayExist(0));
    EXPECT_FALSE(processMayExist(std::uint64_t{1} << 40));
    EXPECT_FALSE(processMayExist(4'000'000'000));
}

} // namespace
} // namespace Tavrin::SplatProgram
