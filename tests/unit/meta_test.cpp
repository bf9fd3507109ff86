#include "src/indexer.h"
#include "src/runlog.h"
#include "tests/support/deathtest.h"
#include "tests/support/files.h"
#include "tests/support/floats.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

using support::Random;

constexpr double infinity = std::numeric_limits<double>::infinity();

std::string printed(double value) {
    if (std::isnan(value)) {
        return std::signbit(value) ? "-nan" : "nan"; // some C libraries do not print the sign
    }
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

TEST(FormatNumber, HasSeventeenDigitsInGeneralNotation) {
    struct Row {
        double value;
        const char* text;
    };
    const Row rows[] = {
        {30.0, "30"},
        {0.0, "0"},
        {-0.0, "-0"},
        {0.1f, "0.10000000149011612"},
        {12.345678f, "12.345678329467773"},
        {0.1, "0.10000000000000001"},
        {0.00001, "1.0000000000000001e-05"},
        {0.0001, "0.0001"},
        {-15.0, "-15"},
        {1e16, "10000000000000000"},
        {1e17, "1e+17"},
        {123456789012345678.0, "1.2345678901234568e+17"},
        {1e100, "1e+100"},
        {0.5, "0.5"},
        {infinity, "inf"},
        {-infinity, "-inf"},
        {std::numeric_limits<double>::max(), "1.7976931348623157e+308"},
        {std::numeric_limits<double>::denorm_min(), "4.9406564584124654e-324"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(formatNumber(row.value), row.text);
        EXPECT_EQ(formatNumber(row.value), printed(row.value));
    }
}

TEST(FormatNumber, AgreesWithTheCLibrary) {
    Random random(100);
    for (int i = 0; i < 400'000; ++i) {
        const double value = i % 2 == 0 ? support::anyDouble(random) : double{support::anyFloat(random)};
        ASSERT_EQ(formatNumber(value), printed(value));
    }
    for (int exponent = -330; exponent <= 310; ++exponent) { // around the changes of notation
        for (const double digits : {1.0, 9.9999999999999982, 1.25, 123456.75}) {
            char text[64];
            std::snprintf(text, sizeof text, "%.17ge%d", digits, exponent);
            const double value = std::strtod(text, nullptr);
            ASSERT_EQ(formatNumber(value), printed(value));
            ASSERT_EQ(formatNumber(-value), printed(-value));
        }
    }
}

TEST(TextFunctions, QuoteWithoutEscaping) {
    EXPECT_EQ(quoted(""), "\"\"");
    EXPECT_EQ(quoted("a b"), "\"a b\"");
    EXPECT_EQ(quoted("a\"b\\c"), "\"a\"b\\c\"");
}

TEST(TextFunctions, TabsRepeat) {
    EXPECT_EQ(tabs(0), "");
    EXPECT_EQ(tabs(1), "\t");
    EXPECT_EQ(tabs(3), "\t\t\t");
}

TEST(TextFunctions, ListsAreJoinedByCommaAndBlank) {
    EXPECT_EQ(formatVector3(1.0, -2.5, 0.1f), "[1, -2.5, 0.10000000149011612]");
    EXPECT_EQ(formatArray({}), "[]");
    EXPECT_EQ(formatArray({7.0}), "[7]");
    EXPECT_EQ(formatArray({1.0, infinity, -0.0, 2.0}), "[1, inf, -0, 2]");
}

TEST(GenerateGuid, IsThirtyTwoLowercaseHexDigits) {
    std::set<std::string> seen;
    std::map<char, int> frequency;
    for (int i = 0; i < 2000; ++i) {
        const std::string guid = generateGuid();
        ASSERT_EQ(guid.size(), 32u);
        ASSERT_EQ(guid.find_first_not_of("0123456789abcdef"), std::string::npos) << guid;
        seen.insert(guid);
        for (const char digit : guid) {
            ++frequency[digit];
        }
    }
    EXPECT_GT(seen.size(), 1990u); // two of the 2^32 seeds may be equal
    EXPECT_EQ(frequency.size(), 16u);
    for (const auto& [digit, count] : frequency) { // 4,000 expected, with a deviation of about 61
        EXPECT_GT(count, 3500) << digit;
        EXPECT_LT(count, 4500) << digit;
    }
}

TEST(BoundingBoxJson, HasFourLinesAndABlankBehindTheComma) {
    EXPECT_EQ(boundingBoxJson({-1.5, 0.0, 2.0}, {3.0, 4.0, 5.0}), "{\n"
                                                                  "\t\t\"min\": [-1.5, 0, 2], \n"
                                                                  "\t\t\"max\": [3, 4, 5]\n"
                                                                  "\t}");
}

std::string entry(const char* name, const char* min, const char* max, const char* end) {
    return std::string("\t\t{\n\t\t\t\"name\": \"") + name + "\",\n\t\t\t\"min\": " + min +
           ", \n\t\t\t\"max\": " + max + "\n\t\t}" + end + "\n";
}

TEST(AttributesJson, HasNineEntriesInOrder) {
    AttributeBounding bounding;
    bounding.position = {.name = "position", .min = {9, 9, 9}, .max = {9, 9, 9}}; // not read
    bounding.normal = {.name = "other", .min = {0.1f, 0, -1}, .max = {1, 2, 3}};  // nor are the names
    bounding.color = {.name = "", .min = {0, 0.5, 0.25}, .max = {1, 1, 1}};
    bounding.shcoef = {.name = "", .min = {-2, -3, -4}, .max = {2, 3, 4}};
    bounding.opacity = {.name = "", .min = {0.125, 7, 7}, .max = {0.75, 7, 7}};
    bounding.scale = {.name = "", .min = {1e-5, 1, 1}, .max = {1e17, 2, 2}};
    for (const bool hasCoefficients : {true, false}) { // written for every input
        bounding.hasShcoef = hasCoefficients;
        EXPECT_EQ(attributesJson(bounding, {-1.5, 0.0, 2.0}, {3.0, 4.0, 5.0}),
                  "[\n" + entry("position", "[-15, 0, 20]", "[30, 40, 50]", ",") +
                      entry("normal", "[0.10000000149011612, 0, -1]", "[1, 2, 3]", ",") +
                      entry("color", "[0, 0.5, 0.25]", "[1, 1, 1]", ",") +
                      entry("shcoef", "[-2, -3, -4]", "[2, 3, 4]", ",") +
                      entry("opacity", "[0.125]", "[0.75]", ",") +
                      entry("scale", "[1.0000000000000001e-05, 1, 1]", "[1e+17, 2, 2]", ",") +
                      entry("envnormal", "[0.10000000149011612, 0, -1]", "[1, 2, 3]", ",") +
                      entry("envshcoef", "[-2, -3, -4]", "[2, 3, 4]", ",") +
                      entry("envscale", "[1.0000000000000001e-05, 1, 1]", "[1e+17, 2, 2]", "") + "\t]");
    }
}

TEST(AttributesJson, RangesThatNothingWidenedAreInfinite) {
    const std::string text = attributesJson(AttributeBounding(), {}, {});
    EXPECT_NE(text.find(entry("scale", "[inf, inf, inf]", "[-inf, -inf, -inf]", ",")), std::string::npos)
        << text;
    EXPECT_NE(text.find(entry("opacity", "[inf]", "[-inf]", ",")), std::string::npos) << text;
    EXPECT_NE(text.find(entry("position", "[0, 0, 0]", "[0, 0, 0]", ",")), std::string::npos) << text;
}

TEST(AttributesJson, TimesTenIsDoublePrecision) {
    const std::string text = attributesJson(AttributeBounding(), {0.1f, 0.1, -1e308}, {1e-320, -0.0, 1e308});
    const std::string min = "[" + printed(double{0.1f} * 10.0) + ", " + printed(0.1 * 10.0) + ", -inf]";
    const std::string max = "[" + printed(1e-320 * 10.0) + ", -0, inf]";
    EXPECT_NE(text.find(entry("position", min.c_str(), max.c_str(), ",")), std::string::npos) << text;
}

struct MetaTest : testing::Test {
    support::Scratch scratch;
    ChunkGrid gridBefore = chunkGrid;
    Indexer indexer{std::vector<SplatHeader>(2), scratch.folder().string()};

    MetaTest() {
        chunkGrid = {.cellSizeX = 30.0f, .cellSizeY = 12.345678f};
        indexer.headers[0].bboxMin = {-1.5, 0.0, 2.0};
        indexer.headers[0].bboxMax = {3.0, 4.0, 5.0};
        indexer.headers[1].bboxMin = {99.0, 99.0, 99.0}; // only the first counts
        indexer.params = std::make_shared<Params>();
        indexer.bounding = std::make_shared<AttributeBounding>();
        indexer.totalSplats = 812;
        indexer.countLabel = "[812]";
        indexer.indexEntrySize = 20;
    }
    ~MetaTest() override {
        closeRunLog();
        chunkGrid = gridBefore;
    }

    std::string write() {
        indexer.writeMeta();
        return support::withPlainLineEnds(support::readFile(scratch / "converted_from_ply.ytr"));
    }

    // The document with "*" for its identifier.
    std::string withoutGuid() {
        const std::string start = "\t\"guid\": \"";
        std::string text = write();
        const std::size_t at = text.find(start) + start.size();
        return text.replace(at, text.find('"', at) - at, "*");
    }

    // The rest of a key's line, starting at its value.
    std::string valueOf(const std::string& key) {
        const std::string text = write();
        const std::string start = "\t\"" + key + "\": ";
        const std::size_t at = text.find("\n" + start);
        return at == text.npos
                   ? ""
                   : text.substr(at + 1 + start.size(), text.find('\n', at + 1) - at - 1 - start.size());
    }
};

TEST_F(MetaTest, IsThisDocument) {
    indexer.params->offsetx = 0.1f;
    indexer.params->epsg = 4326;
    indexer.params->shifty = -2.0;
    indexer.params->scalez = 0.5;
    indexer.params->dataType = "mesh";
    indexer.params->source = "scan1";
    EXPECT_EQ(withoutGuid(), "{\n"
                             "\t\"version\": \"4.0\",\n"
                             "\t\"guid\": \"*\",\n"
                             "\t\"name\": \"Tavrin Splats\",\n"
                             "\t\"description\": \"Tavrin all right reserved\",\n"
                             "\t\"source\": \"mesh\",\n"
                             "\t\"dataType\": \"scan1\",\n"
                             "\t\"totalSplats\": 812,\n"
                             "\t\"totalLevel\": 1,\n"
                             "\t\"cellLengthX\": 30,\n"
                             "\t\"cellLengthY\": 12.345678329467773,\n"
                             "\t\"indexDataSize\": 20,\n"
                             "\t\"offset\": [0.10000000149011612, 0, 0],\n"
                             "\t\"epsg\": 4326,\n"
                             "\t\"shift\": [0, -2, 0],\n"
                             "\t\"scale\": [1, 1, 0.5],\n"
                             "\t\"splats\": [812],\n"
                             "\t\"boundingBox\": {\n"
                             "\t\t\"min\": [-1.5, 0, 2], \n"
                             "\t\t\"max\": [3, 4, 5]\n"
                             "\t},\n"
                             "\t\"encoding\": \"COMPRESS\",\n"
                             "\t\"fileType\": \"Quality\",\n"
                             "\t\"attributes\": " +
                                 attributesJson(*indexer.bounding, {-1.5, 0.0, 2.0}, {3.0, 4.0, 5.0}) +
                                 "\n"
                                 "}\n");
}

TEST_F(MetaTest, SourceAndDataTypeAreCrossed) {
    indexer.params->dataType = "ply"; // as the header reader leaves it without comments
    EXPECT_EQ(valueOf("source"), "\"ply\",");
    EXPECT_EQ(valueOf("dataType"), "\"None\",");
    indexer.params->dataType = "A";
    indexer.params->source = "B";
    EXPECT_EQ(valueOf("source"), "\"A\",");
    EXPECT_EQ(valueOf("dataType"), "\"B\",");
}

TEST_F(MetaTest, ValuesOfOtherSettingsAreWrittenToo) {
    indexer.compressed = 0;
    indexer.bounding->hasShcoef = false;
    indexer.totalLevel = -3;
    indexer.indexEntrySize = 4'000'000'000;
    indexer.totalSplats = std::numeric_limits<std::uint64_t>::max();
    indexer.countLabel = "whatever it is";
    indexer.params->epsg = std::numeric_limits<std::int32_t>::min();
    EXPECT_EQ(valueOf("encoding"), "\"DEFAULT\",");
    EXPECT_EQ(valueOf("fileType"), "\"Portable\",");
    EXPECT_EQ(valueOf("totalLevel"), "-3,");
    EXPECT_EQ(valueOf("indexDataSize"), "4000000000,");
    EXPECT_EQ(valueOf("totalSplats"), "18446744073709551615,");
    EXPECT_EQ(valueOf("splats"), "whatever it is,");
    EXPECT_EQ(valueOf("epsg"), "-2147483648,");
    indexer.compressed = 2;
    EXPECT_EQ(valueOf("encoding"), "\"COMPRESS\",");
}

TEST_F(MetaTest, NothingIsEscapedOrChecked) {
    indexer.params->source = "a \"quote\" and \\";
    indexer.params->offsety = infinity;
    EXPECT_EQ(valueOf("dataType"), "\"a \"quote\" and \\\",");
    EXPECT_EQ(valueOf("offset"), "[0, inf, 0],");
}

TEST_F(MetaTest, TwoDocumentsDifferInTheirGuidAlone) {
    const std::string first = valueOf("guid");
    EXPECT_NE(valueOf("guid"), first);
    EXPECT_EQ(withoutGuid(), withoutGuid());
}

TEST_F(MetaTest, AnExistingDocumentIsReplaced) {
    support::writeFile(scratch / "converted_from_ply.ytr", std::string(10'000, 'Z'));
    const std::string text = write();
    EXPECT_EQ(text.find('Z'), std::string::npos);
    EXPECT_TRUE(text.ends_with("\n\t]\n}\n"));
}

TEST_F(MetaTest, TheNameIsAppendedToTheFolderAsItStands) {
    indexer.outputFolder += "/";
    EXPECT_NE(write(), "");
}

#if !defined(_WIN32)
TEST_F(MetaTest, LinesEndWithALineFeedAlone) {
    write();
    EXPECT_EQ(support::readFile(scratch / "converted_from_ply.ytr").find('\r'), std::string::npos);
}
#endif

TEST_F(MetaTest, ADocumentThatCannotBeOpenedEndsTheProcess) {
    std::filesystem::create_directory(scratch / "converted_from_ply.ytr");
    EXPECT_PROCESS_EXIT(indexer.writeMeta(), support::statusMinusOne,
                        "^ERROR.indexer:519.: cannot open meta file,write file fail\n$");
}

} // namespace

} // namespace Tavrin::GaussionSplat
