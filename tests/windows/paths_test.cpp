// Conversions with paths in each of the code pages, and with files in an old output folder.
//
// The library widens every path itself. So the tests also pass on systems whose narrow functions ignore the
// file functions' mode: wine's fopen takes the ANSI code page even after SetFileApisToOEM.

#include "tests/blackbox/blackbox.h"

#include <algorithm>

#include <windows.h>

namespace blackbox {
namespace {

using support::Host;
using support::HostReport;

class WindowsPaths : public BlackBox {
protected:
    const fs::path umlautInput = scratch / fs::path(L"B\u00E4ume im Park.ply");
    const fs::path umlautOutput = scratch / fs::path(L"f\u00E4rtig \u00FC");

    std::string pathUnderScratch(const char* name) const {
        return support::pathBytes(scratch.folder()) + '/' + name;
    }

    void expectConverted(const HostReport& report, const char* inputName, const char* outputName) {
        if (report.childFailure == "no UTF-8 locale") {
            GTEST_SKIP() << "the universal runtime is not there or has no UTF-8 locale";
        }
        expectDone(report);
        EXPECT_EQ(support::filesUnder(umlautOutput),
                  (std::set<std::string>{"converted_from_ply.ytr", "data.bin", "index.bin", "log.txt"}));
        const std::string log = support::readFile(umlautOutput / "log.txt");
        EXPECT_THAT(log,
                    testing::StartsWith(
                        "INFO(convert:74): input data file:" + pathUnderScratch(inputName) + "\r\n" +
                        "INFO(convert:75): out input file path:" + pathUnderScratch(outputName) + "\r\n"));
    }

    // The second conversion must remove the old folder by that name, too.
    void convertTwice(Host& host, const char* inputName, const char* outputName) {
        if (GetACP() != 1252 || (GetOEMCP() != 437 && GetOEMCP() != 850)) {
            GTEST_SKIP() << "the bytes are those of code pages 1252 and 437 or 850";
        }
        oneSplat().write(umlautInput);
        fs::create_directories(umlautOutput / L"\u00E4lter");
        expectConverted(host.convert(pathUnderScratch(inputName), pathUnderScratch(outputName)).run(),
                        inputName, outputName);
    }

    static void expectRemoveAllError(const HostReport& report, const fs::path& path, DWORD code) {
        ASSERT_EQ(report.childFailure, "");
        ASSERT_EQ(report.calls.size(), 1u);
        const support::CallReport& call = report.calls.front();
        EXPECT_EQ(call.exception, "filesystem_error");
        EXPECT_THAT(call.what, testing::HasSubstr("remove_all"));
        EXPECT_EQ(call.path1, support::pathBytes(path));
        EXPECT_TRUE(call.category != "system" || call.code == static_cast<int>(code))
            << call.category << ' ' << call.code;
        EXPECT_NE(call.code, 0);
        EXPECT_TRUE(report.endReached);
    }
};

TEST_F(WindowsPaths, AreInTheAnsiCodePage) {
    Host host(scratch.folder());
    convertTwice(host, "B\xE4ume im Park.ply", "f\xE4rtig \xFC");
}

TEST_F(WindowsPaths, AreInTheOemCodePageWhenTheFileFunctionsAre) {
    Host host(scratch.folder());
    host.step("oem-file-functions");
    convertTwice(host, "B\x84ume im Park.ply", "f\x84rtig \x81");
}

TEST_F(WindowsPaths, AreUtf8WhenTheLocaleIs) {
    Host host(scratch.folder());
    host.step("utf-8-locale");
    convertTwice(host, "B\xC3\xA4ume im Park.ply", "f\xC3\xA4rtig \xC3\xBC");
}

TEST_F(WindowsPaths, MayHaveBackslashes) {
    oneSplat().write(input);
    std::string in = support::pathBytes(input);
    std::string out = support::pathBytes(output);
    for (std::string* const path : {&in, &out}) {
        std::replace(path->begin(), path->end(), '/', '\\');
    }
    expectDone(Host(scratch.folder()).convert(in, out).run());
    EXPECT_TRUE(fs::exists(output / "data.bin"));
}

TEST_F(WindowsPaths, AReadOnlyFileInTheOldFolderThrowsRemoveAll) {
    oneSplat().write(input);
    makeOldOutput();
    const fs::path file = output / "old" / "deep" / "file";
    ASSERT_TRUE(SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY));
    const HostReport report = convert();
    expectRemoveAllError(report, output, ERROR_ACCESS_DENIED);
    EXPECT_TRUE(fs::exists(file));
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(WindowsPaths, AnOpenFileInTheOldFolderThrowsRemoveAll) {
    oneSplat().write(input);
    makeOldOutput();
    const fs::path file = output / "old" / "deep" / "file";
    Host host(scratch.folder());
    const HostReport report = host.step("hold", support::pathBytes(file)).convert(input, output).run();
    expectRemoveAllError(report, output, ERROR_SHARING_VIOLATION);
    EXPECT_EQ(support::readFile(file), "old file");
}

} // namespace
} // namespace blackbox
