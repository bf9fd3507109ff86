// The code page of narrow paths: UTF-8, ANSI or OEM, depending on the settings of the process.

#include "src/platform.h"
#include "tests/windows/runtime.h"

#include <gtest/gtest.h>

#include <string>

namespace Tavrin::GaussionSplat {

namespace {

// The same letter in the three code pages.
const std::string umlautInAnsi = "\xE4";     // U+00E4 in 1252
const std::string umlautInOem = "\x84";      // U+00E4 in 437 and 850
const std::string umlautInUtf8 = "\xC3\xA4"; // U+00E4
const std::wstring umlaut = L"\u00E4";

class CodePage : public testing::Test {
protected:
    void SetUp() override {
        if (GetACP() != 1252 || (GetOEMCP() != 437 && GetOEMCP() != 850)) {
            GTEST_SKIP() << "the bytes are those of code pages 1252 and 437 or 850, not of " << GetACP()
                         << " and " << GetOEMCP();
        }
    }
    void TearDown() override {
        SetFileApisToANSI();
        windows_test::setUniversalLocale("C");
    }

    static std::wstring read(const std::string& path) { return nativePath(path).native(); }
};

TEST_F(CodePage, IsTheAnsiOneOrdinarily) {
    EXPECT_EQ(read(umlautInAnsi), umlaut);
    EXPECT_EQ(read(umlautInOem), L"\u201E");
    EXPECT_EQ(read(umlautInUtf8), L"\u00C3\u00A4");
}

TEST_F(CodePage, IsTheOemOneWhenTheFileFunctionsAre) {
    SetFileApisToOEM();
    EXPECT_EQ(read(umlautInOem), umlaut);
    SetFileApisToANSI();
    EXPECT_EQ(read(umlautInAnsi), umlaut);
}

TEST_F(CodePage, IsUtf8WhenTheLocaleIsWhateverTheFileFunctionsAre) {
    if (!windows_test::setUniversalLocale(".UTF-8")) {
        GTEST_SKIP() << "the universal runtime is not there or has no UTF-8 locale";
    }
    EXPECT_EQ(read(umlautInUtf8), umlaut);
    SetFileApisToOEM();
    EXPECT_EQ(read(umlautInUtf8), umlaut);
    EXPECT_EQ(read("\xF0\x9F\x8C\xB2"), L"\xD83C\xDF32"); // a pair of surrogates
    ASSERT_TRUE(windows_test::setUniversalLocale("C"));
    EXPECT_EQ(read(umlautInOem), umlaut);
}

TEST_F(CodePage, GivesTheLastComponentItsOwnBytesBack) {
    EXPECT_EQ(lastPathComponent("ordner\\" + umlautInAnsi), umlautInAnsi);
    SetFileApisToOEM();
    EXPECT_EQ(lastPathComponent("ordner\\" + umlautInOem), umlautInOem);
    if (windows_test::setUniversalLocale(".UTF-8")) {
        EXPECT_EQ(lastPathComponent("ordner\\" + umlautInUtf8), umlautInUtf8);
    }
}

TEST_F(CodePage, KeepsSeparatorsAndTheEmptyPath) {
    EXPECT_EQ(read(""), L"");
    EXPECT_EQ(read("C:/a b\\c"), L"C:/a b\\c");
}

} // namespace

} // namespace Tavrin::GaussionSplat
