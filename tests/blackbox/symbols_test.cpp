// The exported symbols and the hardening of the built files.

#include "tests/blackbox/blackbox.h"

#include <sstream>

namespace blackbox {
namespace {

using Symbols = BlackBox;

TEST_F(Symbols, PlyConvertIsTheOnlyOneThatIsExported) {
#if defined(_WIN32)
    GTEST_SKIP()
        << "nm -D reads ELF files; the test Dll.ExportsOneNameAndNeedsTheSystemAlone looks at the DLL";
#else
    const support::ProcessResult nm =
        support::runProcess({{"nm", "-D", "--defined-only", PLYCONVERT_LIBRARY}, {}, scratch.folder()});
    ASSERT_TRUE(nm.exited);
    ASSERT_EQ(nm.status, 0) << nm.errors;
    std::istringstream lines(nm.output);
    std::set<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        names.insert(line.substr(line.rfind(' ') + 1));
    }
    EXPECT_THAT(names, testing::ElementsAre("plyConvert"));
#endif
}

// The environment belongs to the host, so no variable may change a conversion.
TEST_F(Symbols, NoEnvironmentVariableIsRead) {
    EXPECT_EQ(support::readFile(PLYCONVERT_LIBRARY).find("PLYCONVERT_KERNELS"), std::string::npos);
#if !defined(_WIN32) // nm -D reads ELF files
    const support::ProcessResult nm =
        support::runProcess({{"nm", "-D", "--undefined-only", PLYCONVERT_LIBRARY}, {}, scratch.folder()});
    ASSERT_TRUE(nm.exited && nm.status == 0) << nm.errors;
    EXPECT_THAT(nm.output, testing::Not(testing::HasSubstr(" getenv")));
#endif
}

#if defined(PLYCONVERT_HARDENED)

// The output of a tool for a file, with single blanks between words.
class Hardening : public BlackBox {
protected:
    std::string told(const std::vector<std::string>& words) {
        const support::ProcessResult result = support::runProcess({words, {}, scratch.folder()});
        EXPECT_TRUE(result.exited && result.status == 0) << words.front() << ": " << result.errors;
        std::istringstream lines(result.output);
        std::string text;
        for (std::string line; std::getline(lines, line);) {
            std::istringstream split(line);
            for (std::string word; split >> word;) {
                text += word + ' ';
            }
            text += '\n';
        }
        return text;
    }

    // The lines of `text` that contain `part`.
    static std::vector<std::string> linesWith(const std::string& text, const std::string& part) {
        std::vector<std::string> found;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            if (line.find(part) != line.npos) {
                found.push_back(line);
            }
        }
        return found;
    }

    void expectHardened(const std::string& file) {
        SCOPED_TRACE(file);
        const std::string segments = told({"readelf", "--wide", "--segments", file});
        ASSERT_EQ(linesWith(segments, "GNU_STACK").size(), 1u);
        EXPECT_THAT(linesWith(segments, "GNU_STACK").front(), testing::HasSubstr(" RW "));
        EXPECT_EQ(linesWith(segments, "GNU_RELRO").size(), 1u) << segments;
        EXPECT_THAT(linesWith(segments, "LOAD"),
                    testing::Not(testing::Contains(testing::HasSubstr(" RWE "))));
        const std::string dynamic = told({"readelf", "--wide", "--dynamic", file});
        EXPECT_THAT(dynamic, testing::HasSubstr("NOW")) << "bound when it is loaded";
        EXPECT_THAT(dynamic, testing::Not(testing::HasSubstr("TEXTREL")));
        EXPECT_THAT(told({"nm", "-D", "--undefined-only", file}), testing::HasSubstr("__stack_chk_fail"));
    }
};

TEST_F(Hardening, TheLibrary) {
    expectHardened(PLYCONVERT_LIBRARY);
    const std::string dynamic = told({"readelf", "--wide", "--dynamic", PLYCONVERT_LIBRARY});
    EXPECT_THAT(linesWith(dynamic, "RUNPATH"), testing::IsEmpty());
    EXPECT_THAT(linesWith(dynamic, "RPATH"), testing::IsEmpty());
    for (const std::string& line : linesWith(dynamic, "(NEEDED)")) {
        EXPECT_THAT(line, testing::ContainsRegex("lib(stdc[+][+]|m|gcc_s|c)[.]so|ld-linux"))
            << "the C++ runtime alone";
    }
}

#if defined(__x86_64__)
TEST_F(Hardening, IndirectCallsArriveAtALandingPlace) {
    const std::string code = told({"objdump", "--disassemble=plyConvert", PLYCONVERT_LIBRARY});
    const std::size_t start = code.find("<plyConvert>:");
    ASSERT_NE(start, code.npos);
    EXPECT_THAT(code.substr(start, 120), testing::HasSubstr("endbr64"));
}
#endif

#if defined(PLYCONVERT_PROGRAM)
TEST_F(Hardening, TheProgram) {
    expectHardened(PLYCONVERT_PROGRAM);
    EXPECT_THAT(told({"readelf", "--wide", "--file-header", PLYCONVERT_PROGRAM}),
                testing::HasSubstr("Type: DYN "))
        << "loaded at an address that changes from run to run";
}
#endif

// This file is built with the settings of all targets, so the flags reach the compiler.
#if defined(__OPTIMIZE__)
static_assert(_FORTIFY_SOURCE >= 2, "buffers of known size are checked");
#endif
static_assert(__SSP_STRONG__ > 0, "stacks are protected");
#if defined(__x86_64__)
static_assert(__CET__ == 3, "indirect branches and returns are tracked");
#endif

#endif // PLYCONVERT_HARDENED

} // namespace
} // namespace blackbox
