// Exceptions that leave the library, and conversions that end the process.

#include "tests/blackbox/blackbox.h"

#include <csignal>
#include <system_error>
#include <thread>

#if !defined(_WIN32)
#include <sys/stat.h>
#endif

namespace blackbox {
namespace {

using support::CallReport;
using support::Host;
using support::HostReport;
using support::PlyFile;

struct BadNumber {
    const char* name;
    const char* line; // of the header
    const char* exception;
    const char* what;
};

void PrintTo(const BadNumber& bad, std::ostream* stream) {
    *stream << bad.line;
}

class BadNumbers : public BlackBox, public testing::WithParamInterface<BadNumber> {};

// Numbers are read before the output folder is touched, so it is unchanged.
TEST_P(BadNumbers, ThrowBeforeTheOutputFolderIsTouched) {
    PlyFile ply = oneSplat();
    ply.moreElements = {GetParam().line};
    ply.write(input);
    makeOldOutput();
    const HostReport report = convert();
    ASSERT_EQ(report.calls.size(), 1u);
    EXPECT_EQ(report.calls.front().exception, GetParam().exception);
    EXPECT_EQ(report.calls.front().what, GetParam().what);
    EXPECT_TRUE(report.calls.front().floatModeKept);
    EXPECT_TRUE(report.endReached);
    EXPECT_EQ(report.process.output, "");
    expectOldOutputUntouched();
}

constexpr const char* invalid = "invalid_argument";
constexpr const char* outOfRange = "out_of_range";
constexpr const char* invalidFloat = "invalid stof argument";
constexpr const char* hugeFloat = "stof argument out of range";

INSTANTIATE_TEST_SUITE_P(
    All, BadNumbers,
    testing::Values(
        BadNumber{"minx", "comment minx abc", invalid, invalidFloat},
        BadNumber{"miny", "comment miny -", invalid, invalidFloat},
        BadNumber{"minz", "comment minz .", invalid, invalidFloat},
        BadNumber{"maxx", "comment maxx x1", invalid, invalidFloat},
        BadNumber{"maxy", "comment maxy e5", invalid, invalidFloat},
        BadNumber{"maxz", "comment maxz ,5", invalid, invalidFloat},
        BadNumber{"offsetx", "comment offsetx none", invalid, invalidFloat},
        BadNumber{"offsety", "comment offsety none", invalid, invalidFloat},
        BadNumber{"offsetz", "comment offsetz none", invalid, invalidFloat},
        BadNumber{"shiftx", "comment shiftx none", invalid, invalidFloat},
        BadNumber{"shifty", "comment shifty none", invalid, invalidFloat},
        BadNumber{"shiftz", "comment shiftz none", invalid, invalidFloat},
        BadNumber{"scalex", "comment scalex none", invalid, invalidFloat},
        BadNumber{"scaley", "comment scaley none", invalid, invalidFloat},
        BadNumber{"scalez", "comment scalez none", invalid, invalidFloat},
        BadNumber{"hugeMaxx", "comment maxx 1e39", outOfRange, hugeFloat},
        BadNumber{"hugeOffset", "comment offsety -3.5e38", outOfRange, hugeFloat},
        BadNumber{"hugeScale", "comment scalez 1e999", outOfRange, hugeFloat},
        BadNumber{"epsg", "comment epsg abc", invalid, "invalid stoi argument"},
        BadNumber{"hugeEpsg", "comment epsg 2147483648", outOfRange, "stoi argument out of range"},
        BadNumber{"smallEpsg", "comment epsg -2147483649", outOfRange, "stoi argument out of range"},
        BadNumber{"count", "element vertex many", invalid, "invalid stoll argument"},
        BadNumber{"hugeCount", "element vertex 9223372036854775808", outOfRange,
                  "stoll argument out of range"}),
    [](const testing::TestParamInfo<BadNumber>& bad) { return std::string(bad.param.name); });

class Failures : public BlackBox {
protected:
    // Expects that the only call ended with this file-system error on this path.
    static void expectFileSystemError(const HostReport& report, const std::string& operation,
                                      const std::string& path, std::errc code) {
        ASSERT_EQ(report.childFailure, "");
        ASSERT_EQ(report.calls.size(), 1u);
        const CallReport& call = report.calls.front();
        EXPECT_FALSE(call.result.has_value());
        EXPECT_EQ(call.exception, "filesystem_error");
        EXPECT_THAT(call.what, testing::HasSubstr(operation));
        EXPECT_EQ(call.path1, path);
        EXPECT_EQ(call.path2, "");
        EXPECT_EQ(call.code, static_cast<int>(code)) << call.what;
        EXPECT_TRUE(report.endReached);
    }
};

TEST_F(Failures, AnOutputBelowAFileCannotBeCreated) {
    oneSplat().write(input);
    support::writeFile(scratch / "file", "content");
    const std::string folder = support::pathBytes(scratch / "file") + "/out";
    const HostReport report = Host(scratch.folder()).convert(support::pathBytes(input), folder).run();
#if defined(_WIN32)
    ASSERT_EQ(report.calls.size(), 1u);
    EXPECT_EQ(report.calls.front().exception, "filesystem_error");
    EXPECT_THAT(report.calls.front().what, testing::HasSubstr("create_directories"));
#else
    expectFileSystemError(report, "create_directories", folder, std::errc::not_a_directory);
#endif
    EXPECT_EQ(support::readFile(scratch / "file"), "content");
}

#if !defined(_WIN32)

TEST_F(Failures, AnInputThatCannotBeLookedAtThrowsExists) {
    makeOldOutput();
    input = scratch / std::string(300, 'n'); // longer than the longest file name
    expectFileSystemError(convert(), "exists", support::pathBytes(input), std::errc::filename_too_long);
    expectOldOutputUntouched();
}

TEST_F(Failures, AnOutputThatCannotBeLookedAtThrowsExists) {
    oneSplat().write(input);
    output = scratch / std::string(300, 'n');
    expectFileSystemError(convert(), "exists", support::pathBytes(output), std::errc::filename_too_long);
}

TEST_F(Failures, AnOutputThatCannotBeRemovedThrowsRemoveAll) {
    oneSplat().write(input);
    makeOldOutput();
    const std::string folder = support::pathBytes(output) + "/."; // can be emptied but not removed
    const HostReport report = Host(scratch.folder()).convert(support::pathBytes(input), folder).run();
    expectFileSystemError(report, "remove_all", folder, std::errc::invalid_argument);
    EXPECT_FALSE(fs::exists(output / "log.txt"));
}

// A pipe passes the check, which only reads the header. Then it has no size.
TEST_F(Failures, AnInputWithoutASizeThrowsFileSize) {
    makeOldOutput();
    ASSERT_EQ(mkfifo(input.c_str(), 0600), 0);
    std::thread writer([this] { oneSplat().write(input); });
    const HostReport report = convert();
    writer.join();
    expectFileSystemError(report, "file_size", support::pathBytes(input), std::errc::not_supported);
    expectOldOutputUntouched();
}

// The scan for the bounds starts its workers before the output folder is touched. The workers that were
// started end properly, since the host reaches its end.
TEST_F(Failures, AThreadThatCannotStartIsTheStandardSystemError) {
    oneSplat().write(input);
    makeOldOutput();
    const HostReport report =
        Host(scratch.folder())
            .step("hardware-threads", "1000")
            .step("folder", support::pathBytes(scratch.folder()))
            .step("few-threads") // it makes the host another user, who has no access to the absolute path
            .convert(std::string("scene.ply"), std::string("out"))
            .run();
    ASSERT_EQ(report.childFailure, "");
    ASSERT_EQ(report.calls.size(), 1u);
    EXPECT_EQ(report.calls.front().exception, "system_error");
    EXPECT_EQ(report.calls.front().code, static_cast<int>(std::errc::resource_unavailable_try_again));
    EXPECT_TRUE(report.endReached);
    expectOldOutputUntouched();
}

// With one free descriptor, for the log, neither the input nor data.bin can be opened.
TEST_F(Failures, WithoutDataFileTheProcessEnds) {
    oneSplat().write(input);
    const HostReport report = Host(scratch.folder()).step("free-files", "1").convert(input, output).run();
    expectProcessEnd(report, exitMinusOne);
    EXPECT_EQ(report.process.output, "ERROR(chunker:61): file cannot open \n"
                                     "ERROR(indexer:533): cannot open data bin file,write file fail\n");
    EXPECT_EQ(support::filesUnder(output), (std::set<std::string>{"log.txt"}));
}

// With two free descriptors data.bin can be opened and shcoef.bin cannot.
TEST_F(Failures, WithoutCoefficientFileTheProcessEnds) {
    oneSplat(true).write(input);
    const HostReport report = Host(scratch.folder()).step("free-files", "2").convert(input, output).run();
    expectProcessEnd(report, exitMinusOne);
    EXPECT_EQ(report.process.output, "ERROR(indexer:541): cannot open data bin file,write file fail\n");
    EXPECT_EQ(support::filesUnder(output), (std::set<std::string>{"data.bin", "log.txt"}));
    EXPECT_THAT(log(), testing::EndsWith("INFO(indexer:38): Index finished ,Start create Data... \n"
                                         "ERROR(indexer:541): cannot open data bin file,write file fail\n"));
}

// The decoded blocks fit the limit, the output records do not. The next conversion works normally.
TEST_F(Failures, OutOfMemoryOnTheCallersThreadIsAnException) {
#if defined(PLYCONVERT_ADDRESS_SPACE_IN_USE)
    GTEST_SKIP() << "the sanitizer's runtime leaves no address space to limit";
#endif
    PlyFile ply = oneSplat();
    ply.elementLine = "element vertex 2500000";
    ply.write(input);
    const fs::path small = scratch / "small.ply";
    oneSplat().write(small);
    const HostReport report = Host(scratch.folder())
                                  .step("address-space", "900000000")
                                  .convert(input, output)
                                  .convert(small, scratch / "after")
                                  .run();
    ASSERT_EQ(report.childFailure, "");
    ASSERT_EQ(report.calls.size(), 2u);
    EXPECT_EQ(report.calls[0].exception, "bad_alloc");
    EXPECT_EQ(report.calls[0].what, "bad allocation");
    EXPECT_EQ(report.calls[1].result, 0);
    EXPECT_THAT(log(), testing::EndsWith("INFO(indexer:29): Start Index ,need a little time ... \n"));
}

// An exception on a worker thread aborts the process.
TEST_F(Failures, OutOfMemoryOnAWorkerAbortsTheProcess) {
#if defined(PLYCONVERT_ADDRESS_SPACE_IN_USE)
    GTEST_SKIP() << "the sanitizer's runtime leaves no address space to limit";
#endif
    PlyFile ply = oneSplat(true);
    ply.elementLine = "element vertex 2000000";
    ply.write(input);
    const HostReport report =
        Host(scratch.folder()).step("address-space", "400000000").convert(input, output).run();
    ASSERT_EQ(report.childFailure, "");
    EXPECT_FALSE(report.process.exited);
    EXPECT_EQ(report.process.status, SIGABRT);
}

#endif

TEST_F(Failures, ASceneWithoutSplatsEndsTheProcess) {
    PlyFile ply;
    ply.write(input);
    const HostReport report = convertToProcessEnd(exitMinusOne);
    EXPECT_EQ(report.process.output, "ERROR(indexer:708): cannot GET lod0 data\n");
    EXPECT_EQ(support::filesUnder(output), (std::set<std::string>{"data.bin", "log.txt"}));
    EXPECT_EQ(fs::file_size(output / "data.bin"), 0u);
}

TEST_F(Failures, ASceneWithoutSplatsButWithCoefficientsSaysAnotherLine) {
    PlyFile ply;
    ply.coefficients = true;
    ply.write(input);
    const HostReport report = convertToProcessEnd(exitMinusOne);
    EXPECT_EQ(report.process.output, "ERROR(indexer:548): cannot GET lod0 data\n");
    EXPECT_EQ(support::filesUnder(output), (std::set<std::string>{"data.bin", "log.txt", "shcoef.bin"}));
}

TEST_F(Failures, ANegativeCountIsASceneWithoutSplats) {
    PlyFile ply = oneSplat();
    ply.elementLine = "element vertex -5";
    ply.write(input);
    const HostReport report = convertToProcessEnd(exitMinusOne);
    EXPECT_EQ(report.process.output, "ERROR(indexer:708): cannot GET lod0 data\n");
}

} // namespace
} // namespace blackbox
