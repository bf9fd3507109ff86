// Checks which source files include which: the dependencies between units and folders go one way.

#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Names = std::set<std::string>;

const fs::path root = PLYCONVERT_SOURCE_FOLDER;

struct Include {
    std::string from; // path of the including file in the project
    std::string name; // as written
    bool quoted;

    // The included file of the project; empty for other headers.
    std::string target() const {
        for (const fs::path& folder : {(root / from).parent_path(), root, root / "include"}) {
            if (fs::exists(folder / name)) {
                return fs::relative(folder / name, root).generic_string();
            }
        }
        return {};
    }
};

// Removes `word` and the blanks before it from the front of the line; false if the line continues
// differently.
bool take(std::string_view& line, std::string_view word) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    const bool found = line.starts_with(word);
    line.remove_prefix(found ? word.size() : 0);
    return found;
}

std::vector<Include> includesOf(const fs::path& file) {
    std::vector<Include> includes;
    std::istringstream text(support::readFile(file));
    for (std::string wholeLine; std::getline(text, wholeLine);) {
        std::string_view line = wholeLine;
        if (!take(line, "#") || !take(line, "include")) {
            continue;
        }
        const bool quoted = take(line, "\"");
        if (quoted || take(line, "<")) {
            includes.push_back({.from = fs::relative(file, root).generic_string(),
                                .name = std::string(line.substr(0, line.find(quoted ? '"' : '>'))),
                                .quoted = quoted});
        }
    }
    return includes;
}

bool isSource(const fs::path& file) {
    return Names{".h", ".cpp", ".c"}.count(file.extension().string()) > 0;
}

// The includes of every source file in a folder of the project, or of one file.
std::vector<Include> includesUnder(const char* place) {
    if (fs::is_regular_file(root / place)) {
        return includesOf(root / place);
    }
    std::vector<Include> includes;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root / place)) {
        if (entry.is_regular_file() && isSource(entry.path())) {
            const std::vector<Include> more = includesOf(entry.path());
            includes.insert(includes.end(), more.begin(), more.end());
        }
    }
    return includes;
}

std::string folderOf(const std::string& path) {
    return path.substr(0, path.find('/'));
}

// The unit that a file of src belongs to: a unit that grows takes more files under its own name.
std::string unitOf(const std::string& path) {
    const std::string stem = fs::path(path).stem().string();
    if (stem == "large_pages") { // two words, one unit
        return stem;
    }
    return stem.substr(0, stem.find('_'));
}

TEST(Layering, UnitsOfTheLibraryIncludeOnlyThoseBelowThem) {
    const Names leaves = {"platform", "large_pages", "kernels", "conversions", "lanes"};
    const std::map<std::string, Names> below = {
        {"platform", {}},
        {"large_pages", {}},
        {"kernels", {}},
        {"conversions", {}},
        {"lanes", {}},
        {"records", {}},
        {"taskpool", {}},
        {"runlog", {}},
        {"cells", {"records"}},
        {"blocks", {"records"}},
        {"splatheader", {"blocks", "cells", "records", "taskpool"}},
        {"chunker", {"splatheader", "blocks", "cells", "records", "runlog", "taskpool"}},
        {"indexer", {"chunker", "splatheader", "cells", "records", "runlog"}},
    };
    const std::vector<Include> includes = includesUnder("src");
    ASSERT_FALSE(includes.empty());
    for (const Include& include : includes) {
        const std::string from = unitOf(include.from);
        ASSERT_EQ(below.count(from), 1u) << include.from << " belongs to no unit of the table";
        if (!include.quoted) {
            continue;
        }
        const std::string to = unitOf(include.target());
        EXPECT_EQ(folderOf(include.target()), "src") << include.from << " includes " << include.name;
        const bool fromLeaf = leaves.count(from) > 0;
        EXPECT_TRUE(from == to || below.at(from).count(to) > 0 || (leaves.count(to) > 0 && !fromLeaf))
            << include.from << " includes " << include.name;
    }
}

TEST(Layering, TheEntryPointIncludesTheLibraryAndItsHeaderAlone) {
    for (const Include& include : includesUnder("convert.cpp")) {
        if (include.quoted) {
            EXPECT_TRUE(include.target() == "include/plyconvert.h" || folderOf(include.target()) == "src")
                << include.name;
        }
    }
}

TEST(Layering, ThePublicHeaderNeedsTheCLibraryAlone) {
    for (const Include& include : includesUnder("include/plyconvert.h")) {
        EXPECT_EQ(include.name, "stdint.h");
    }
}

// Headers without an extension belong to the language, the few others to a system or a compiler.
TEST(Layering, TheLibraryTheStreamTheThreadsAndTheReaderUseTheStandardLibraryAlone) {
    const std::map<std::string, Names> others = {
        {"src/platform.cpp", {"windows.h", "xmmintrin.h", "sys/stat.h", "fcntl.h", "unistd.h"}},
        {"src/large_pages.cpp", {"malloc.h", "sys/mman.h", "unistd.h"}},
        {"src/chunker_decode.cpp", {"emmintrin.h"}},
        {"src/indexer_quantise_fast.cpp", {"emmintrin.h"}},
        {"src/indexer_quantise_avx2.cpp", {"immintrin.h"}},
    };
    for (const char* const place : {"src", "convert.cpp", "reader", "stream", "threads"}) {
        for (const Include& include : includesUnder(place)) {
            const bool standard = include.name.find_first_of("./") == std::string::npos;
            const auto allowed = others.find(include.from);
            EXPECT_TRUE(include.quoted || standard ||
                        (allowed != others.end() && allowed->second.count(include.name) > 0))
                << include.from << " includes " << include.name;
        }
    }
}

// The files of a folder include each other, those of other folders, and single files.
void expectIncludes(const char* folder, const Names& folders, const Names& files = {}) {
    const std::vector<Include> includes = includesUnder(folder);
    ASSERT_FALSE(includes.empty());
    for (const Include& include : includes) {
        const std::string target = include.target();
        const std::string from = folderOf(target);
        EXPECT_TRUE(!include.quoted || from == folder || folders.count(from) > 0 || files.count(target) > 0)
            << include.from << " includes " << include.name;
    }
}

TEST(Layering, ThreadsKnowNothingOfTheProject) {
    expectIncludes("threads", {});
}

TEST(Layering, SourcesKnowTheRecordLayoutAlone) {
    expectIncludes("source", {"threads"}, {"src/records.h"});
}

// A generator that took the reader of a format for its own writer would agree with every mistake in it. What
// the two share is the layout of a record.
TEST(Layering, ScenesKnowTheRecordLayoutAlone) {
    expectIncludes("scenes", {}, {"src/records.h", "source/record_properties.h"});
}

// The stream works with the library's kernels, never with its stages.
TEST(Layering, TheStreamUsesSourcesAndKernelsAlone) {
    const Names units = {"cells",    "records",     "splatheader", "runlog",
                         "platform", "large_pages", "kernels",     "lanes"};
    const Names kernels = {"src/chunker_decode.h", "src/indexer_quantise.h", "src/indexer_records.h",
                           "src/indexer_meta.h", "src/indexer_files.h"};
    const std::vector<Include> includes = includesUnder("stream");
    ASSERT_FALSE(includes.empty());
    for (const Include& include : includes) {
        const std::string target = include.target();
        const std::string folder = folderOf(target);
        const bool isKernel =
            folder == "src" && (units.count(unitOf(target)) > 0 || kernels.count(target) > 0);
        EXPECT_TRUE(!include.quoted || folder == "stream" || folder == "source" || folder == "threads" ||
                    isKernel)
            << include.from << " includes " << include.name;
    }
}

TEST(Layering, TheReaderSharesNoCodeWithTheLibrary) {
    expectIncludes("reader", {});
}

TEST(Layering, PicturesKnowTheReaderAlone) {
    expectIncludes("picture", {"reader", "threads"});
}

TEST(Layering, TheProgramUsesTheFoldersBelowItAlone) {
    const Names folders = {"program", "picture", "reader", "source", "stream", "threads"};
    for (const Include& include : includesUnder("program")) {
        const std::string target = include.target();
        const bool allowed = target == "include/plyconvert.h" || folders.count(folderOf(target)) > 0;
        EXPECT_TRUE(allowed || (!include.quoted && target.empty()))
            << include.from << " includes " << include.name;
    }
}

// The folder of a file of the program; main.cpp stands above all.
std::string programFolderOf(const std::string& path) {
    const std::string inside = path.substr(std::string("program/").size());
    return inside.find('/') == std::string::npos ? "main" : folderOf(inside);
}

TEST(Layering, FoldersOfTheProgramIncludeOnlyThoseBelowThem) {
    const Names work = {"scene", "terminal", "system"};
    const Names all = {"commands", "convert", "info",     "compare", "scene",
                       "serve",    "tiles",   "terminal", "system"};
    const std::map<std::string, Names> below = {
        {"main", all},
        {"commands", all},
        {"convert", work},
        {"tiles", {"convert", "scene", "terminal", "system"}},
        {"info", work},
        {"compare", work},
        {"scene", {"terminal", "system"}},
        {"serve", {"terminal", "system"}},
        {"terminal", {"system"}},
        {"system", {}},
    };
    for (const Include& include : includesUnder("program")) {
        if (folderOf(include.target()) != "program") {
            continue;
        }
        const std::string from = programFolderOf(include.from);
        const std::string to = programFolderOf(include.target());
        ASSERT_EQ(below.count(from), 1u) << include.from << " stands in no folder of the table";
        EXPECT_TRUE(from == to || below.at(from).count(to) > 0)
            << include.from << " includes " << include.name;
    }
}

// Tests of the shipped library include none of its headers, and the reference converter shares no code with
// it. The one exception chooses the kernels of whole conversions.
TEST(Layering, SuitesOfTheShippedLibraryIncludeNothingOfIt) {
    for (const char* const place : {"tests/blackbox", "tests/golden", "tests/cli", "tests/consumer",
                                    "tests/reference", "tests/support"}) {
        for (const Include& include : includesUnder(place)) {
            const std::string folder = folderOf(include.target());
            const bool choosesKernels =
                include.from == "tests/golden/kernels_test.cpp" && include.target() == "src/kernels.h";
            const bool streams = include.from == "tests/golden/stream_golden_test.cpp" &&
                                 include.target() == "src/splatheader.h";
            EXPECT_TRUE(choosesKernels || streams || (folder != "src" && folder != "program"))
                << include.from << " includes " << include.name;
        }
    }
}

// The first number in a line with a suffix in upper case (1.0F, 7U, 0x1fUL); empty if there is none.
std::string upperCaseSuffix(const std::string& line) {
    const auto isPart = [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '.' || c == '\'';
    };
    for (std::size_t at = 0; at < line.size();) {
        std::size_t end = at;
        while (end < line.size() && isPart(line[end])) {
            ++end;
        }
        const std::string word = line.substr(at, end - at);
        at = end + 1;
        const bool isHexadecimal = word.starts_with("0x");
        const std::size_t digits = word.find_last_not_of(isHexadecimal ? "UL" : "FUL") + 1;
        if (digits < word.size() && word.find_first_of("0123456789") == 0 && digits > 0 &&
            word.find_first_not_of(isHexadecimal ? "0123456789abcdefABCDEFx'p." : "0123456789.'e") >=
                digits) {
            return word;
        }
    }
    return {};
}

// The one rule of style that neither .clang-format nor .clang-tidy can check.
TEST(Layering, SuffixesOfNumbersAreLowerCase) {
    EXPECT_EQ(upperCaseSuffix("a = 1.5F;"), "1.5F");
    EXPECT_EQ(upperCaseSuffix("f(x, 0x7fUL)"), "0x7fUL");
    EXPECT_EQ(upperCaseSuffix("f(1.5f, 0xFF, 7u, FULL, x1F)"), "");
    for (const char* const place :
         {"src", "source", "stream", "threads", "reader", "program", "scenes", "picture", "bench", "fuzz"}) {
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root / place)) {
            if (!entry.is_regular_file() || !isSource(entry.path())) {
                continue;
            }
            std::istringstream text(support::readFile(entry.path()));
            for (std::string line; std::getline(text, line);) {
                EXPECT_EQ(upperCaseSuffix(line), "") << entry.path() << ": " << line;
            }
        }
    }
}

TEST(Layering, EveryHeaderOpensWithItsPurpose) {
    for (const char* const place : {"include", "src", "source", "stream", "threads", "reader", "program",
                                    "scenes", "picture", "bench", "fuzz", "tests"}) {
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root / place)) {
            if (entry.path().extension() == ".h") {
                const std::string text = support::readFile(entry.path());
                EXPECT_TRUE(text.starts_with("// ") || text.starts_with("/*")) << entry.path();
            }
        }
    }
}

} // namespace
