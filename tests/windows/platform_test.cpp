// What the program asks of the system.

#include "program/system/platform.h"

#include "program/system/child_process.h"
#include "tests/support/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

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

std::vector<std::string> childWords(const std::string& test) {
    return {"--gtest_also_run_disabled_tests", "--gtest_filter=ChildSide.DISABLED_" + test,
            "--gtest_catch_exceptions=0"};
}

// Child processes: this program, started with one of the next six as the only test.

TEST(ChildSide, DISABLED_PrintsItsWords) {
    for (const std::string& word : commandLineWords(0, nullptr)) {
        std::printf("word %s\n", word.c_str());
    }
    std::fprintf(stderr, "error line\n");
    std::fflush(stdout);
    std::_Exit(66);
}

TEST(ChildSide, DISABLED_PrintsMoreThanAPipeHolds) {
    for (int i = 0; i < 100'000; ++i) {
        std::printf("line %d\n", i);
    }
    std::fflush(stdout);
    std::_Exit(0);
}

TEST(ChildSide, DISABLED_Waits) {
    Sleep(INFINITE);
}

// Where a child of a child says who it is.
constexpr const char* idFile = "PLYCONVERT_TEST_ID_FILE";

TEST(ChildSide, DISABLED_SaysItsIdAndWaits) {
    support::writeFile(pathFromText(std::getenv(idFile)), std::to_string(ownProcessId()) + '\n');
    Sleep(INFINITE);
}

TEST(ChildSide, DISABLED_HasAChildThatWaits) {
    const ChildProcess child(childWords("SaysItsIdAndWaits"));
    Sleep(INFINITE);
}

TEST(ChildSide, DISABLED_Crashes) {
    // What such an exception ends with when nobody catches it; raising one would start wine's debugger.
    TerminateProcess(GetCurrentProcess(), EXCEPTION_ACCESS_VIOLATION);
}

HANDLE startChildSide(const std::string& test) {
    std::wstring program(MAX_PATH, L'\0');
    program.resize(GetModuleFileNameW(nullptr, program.data(), MAX_PATH));
    std::wstring line = L"child";
    for (const std::string& word : childWords(test)) {
        line += L' ' + pathFromText(word).native();
    }
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process = {};
    EXPECT_TRUE(CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, FALSE, DETACHED_PROCESS,
                               nullptr, nullptr, &startup, &process));
    CloseHandle(process.hThread);
    return process.hProcess;
}

void waitForEnd(ChildProcess& child) {
    while (!child.waitFor(std::chrono::milliseconds(20))) {
    }
}

TEST(PlatformChild, GetsItsWordsAsTheyAreAndIsHeard) {
    const std::vector<std::string> odd = {"two words", "a \"quote\"", "ends in \\", "b\\\\\"c",
                                          "",          "\xE6\xA3\xAE"};
    std::vector<std::string> words = childWords("PrintsItsWords");
    words.insert(words.end(), odd.begin(), odd.end());
    ChildProcess child(words);
    waitForEnd(child);
    EXPECT_EQ(child.end().status, 66);
    EXPECT_EQ(child.end().killer, "");
    for (const std::string& word : odd) {
        EXPECT_THAT(child.outputLines(), testing::Contains("word " + word));
    }
    EXPECT_EQ(child.errorLines(), std::vector<std::string>{"error line"});
}

TEST(PlatformChild, IsNotHeldUpByAFullPipe) {
    ChildProcess child(childWords("PrintsMoreThanAPipeHolds"));
    waitForEnd(child);
    EXPECT_EQ(child.end().status, 0);
    EXPECT_THAT(child.outputLines(), testing::Contains("line 0"));
}

TEST(PlatformChild, EndsWithTheObject) {
    const std::uint64_t own = ownProcessId();
    EXPECT_TRUE(processMayExist(own));
    ChildProcess child(childWords("Waits"));
    EXPECT_FALSE(child.waitFor(std::chrono::milliseconds(1)));
    // Its destructor returns when the process has ended; the test ends only then.
}

// Killed from outside, the process that has the object runs no destructor.
TEST(PlatformChild, EndsWithTheProcessThatStartedIt) {
    constexpr DWORD patience = 120'000; // milliseconds
    const support::Scratch scratch;
    const fs::path idPath = scratch / "id";
    SetEnvironmentVariableA(idFile, textFromPath(idPath).c_str());
    // Not a ChildProcess: its job would end the child's child, too.
    const HANDLE parent = startChildSide("HasAChildThatWaits");
    std::string id;
    while (!id.ends_with('\n') && WaitForSingleObject(parent, 20) == WAIT_TIMEOUT) {
        id = fs::exists(idPath) ? support::readFile(idPath) : "";
    }
    ASSERT_TRUE(id.ends_with('\n')) << "the parent has ended";
    const HANDLE child = OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, std::stoul(id));
    ASSERT_NE(child, nullptr);
    EXPECT_EQ(WaitForSingleObject(child, 0), DWORD{WAIT_TIMEOUT}) << "it ends by itself";
    TerminateProcess(parent, 1);
    CloseHandle(parent);
    EXPECT_EQ(WaitForSingleObject(child, patience), DWORD{WAIT_OBJECT_0}) << "it lives on";
    TerminateProcess(child, 1);
    CloseHandle(child);
}

TEST(PlatformChild, ThatCrashesNamesTheException) {
    ChildProcess child(childWords("Crashes"));
    waitForEnd(child);
    EXPECT_EQ(child.end().killer, "exception 0xC0000005");
}

TEST(PlatformProcess, IsNoneWithAnIdThatTheSystemGivesNobody) {
    EXPECT_FALSE(processMayExist(0));
    EXPECT_FALSE(processMayExist(std::uint64_t{1} << 40));
    EXPECT_FALSE(processMayExist(4'000'000'000));
}

} // namespace
} // namespace Tavrin::SplatProgram
