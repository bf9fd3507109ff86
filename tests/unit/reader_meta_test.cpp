// The meta document: reading it, its oddities, and where faults are found.
#include "reader/meta.h"
#include "tests/support/dataset_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

namespace {

using namespace Tavrin::SplatReader;
using DatasetWriter::MetaFields;
using testing::HasSubstr;

struct Parsed {
    std::optional<Meta> meta;
    Findings findings;
};

Parsed parse(const std::string& text) {
    Parsed parsed;
    parsed.meta = parseMeta(text, parsed.findings);
    if (parsed.meta) {
        checkMeta(*parsed.meta, text, parsed.findings);
    }
    return parsed;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

std::string soundText() {
    MetaFields fields;
    fields.totalSplats = 812;
    return DatasetWriter::metaText(fields);
}

std::string allFindings(const Parsed& parsed) {
    std::string text;
    for (const Finding& finding : parsed.findings.errors()) {
        text += "error: " + finding.text() + "\n";
    }
    for (const Finding& finding : parsed.findings.warnings()) {
        text += "warning: " + finding.text() + "\n";
    }
    return text;
}

TEST(ReaderMeta, ReadsEveryKey) {
    MetaFields fields;
    fields.totalSplats = 812;
    fields.source = "mesh";
    fields.dataType = "scan1";
    fields.offset = {0.10000000149011612, -2, 3e20};
    fields.epsg = -4326;
    fields.shift = {1, 2, 3};
    fields.scale = {0.5, 1, 2};
    fields.opacity = {{0.125}, {0.75}};
    const Parsed parsed = parse(DatasetWriter::metaText(fields));
    ASSERT_TRUE(parsed.meta) << allFindings(parsed);
    EXPECT_EQ(allFindings(parsed), "");
    const Meta& meta = *parsed.meta;
    EXPECT_EQ(meta.version, "4.0");
    EXPECT_EQ(meta.guid, "0123456789abcdef0123456789abcdef");
    EXPECT_EQ(meta.source, "mesh");
    EXPECT_EQ(meta.dataType, "scan1");
    EXPECT_EQ(meta.totalSplats, 812u);
    EXPECT_EQ(meta.totalLevel, 1);
    EXPECT_EQ(meta.cellLengthX, 8.0);
    EXPECT_EQ(meta.cellLengthY, 4.0);
    EXPECT_EQ(meta.indexDataSize, 20u);
    EXPECT_EQ(meta.offset, (Point{0.10000000149011612, -2, 3e20}));
    EXPECT_EQ(meta.epsg, -4326);
    EXPECT_EQ(meta.shift, (Point{1, 2, 3}));
    EXPECT_EQ(meta.scale, (Point{0.5, 1, 2}));
    EXPECT_EQ(meta.splats, std::vector<std::uint64_t>{812});
    EXPECT_EQ(meta.boundingMax, (Point{8, 4, 2}));
    EXPECT_TRUE(meta.packed());
    EXPECT_TRUE(meta.hasCoefficients());
    EXPECT_TRUE(meta.oneCell());
    EXPECT_EQ(meta.attributes[0].max, (Point{80, 40, 20}));
    EXPECT_EQ(meta.opacity().min[0], 0.125);
    EXPECT_EQ(meta.opacity().max[0], 0.75);
    EXPECT_EQ(meta.opacity().components, 1u);
}

TEST(ReaderMeta, ReadsBothLineEndings) {
    MetaFields fields;
    fields.totalSplats = 812;
    const Parsed parsed = parse(DatasetWriter::metaText(fields, "\r\n"));
    ASSERT_TRUE(parsed.meta);
    EXPECT_EQ(allFindings(parsed), "");
}

TEST(ReaderMeta, ReadsInfinitiesAndNotANumber) {
    MetaFields fields;
    fields.totalSplats = 812;
    const double inf = std::numeric_limits<double>::infinity();
    fields.scales = {{inf, inf, inf}, {-inf, -inf, -inf}};
    fields.offset = {std::nan(""), -std::nan(""), 0};
    const Parsed parsed = parse(DatasetWriter::metaText(fields));
    ASSERT_TRUE(parsed.meta) << allFindings(parsed);
    EXPECT_TRUE(parsed.meta->scaleRange().empty(0));
    EXPECT_FALSE(parsed.meta->scaleRange().finite(0));
    EXPECT_TRUE(std::isnan(parsed.meta->offset[0]));
    EXPECT_TRUE(std::signbit(parsed.meta->offset[1]));
    // A range that no splat widened is empty, which is legal but reported.
    EXPECT_EQ(parsed.findings.errorCount(), 0u) << allFindings(parsed);
    EXPECT_EQ(parsed.findings.warningCount(), 3u) << allFindings(parsed);
}

TEST(ReaderMeta, OtherWordsAreNoNumbers) {
    for (const char* word :
         {"infinity", "Inf", "NaN", "+1", ".5", "1.", "0x10", "1e", "1e999", "--1", "inf1"}) {
        const Parsed parsed =
            parse(replaced(soundText(), "\"cellLengthX\": 8", std::string("\"cellLengthX\": ") + word));
        // "1." is a number for the parser, and reported as not in the document's own form.
        EXPECT_GT(parsed.findings.errorCount() + parsed.findings.warningCount(), 0u) << word;
    }
}

TEST(ReaderMeta, FreeTextsKeepQuotesAndBackslashes) {
    MetaFields fields;
    fields.totalSplats = 812;
    fields.source = R"(a"b",)";
    fields.dataType = R"(C:\scans\"x"\)";
    for (const char* lineEnd : {"\n", "\r\n"}) {
        const Parsed parsed = parse(DatasetWriter::metaText(fields, lineEnd));
        ASSERT_TRUE(parsed.meta) << allFindings(parsed);
        EXPECT_EQ(parsed.meta->source, fields.source);
        EXPECT_EQ(parsed.meta->dataType, fields.dataType);
        EXPECT_EQ(allFindings(parsed), "");
    }
}

TEST(ReaderMeta, ReadsADocumentOnOneLine) {
    std::string text;
    for (const char c : soundText()) {
        if (c != '\n' && c != '\t') {
            text += c;
        }
    }
    const Parsed parsed = parse(text);
    ASSERT_TRUE(parsed.meta) << allFindings(parsed);
    EXPECT_EQ(parsed.meta->source, "ply");
    EXPECT_EQ(parsed.findings.errorCount(), 0u);
    EXPECT_EQ(parsed.findings.warningKinds().count("meta-form"), 1u);
}

TEST(ReaderMeta, RendersTheDocumentByteForByte) {
    MetaFields fields;
    fields.totalSplats = 18446744073709551615u;
    fields.offset = {1e-05, 0.1, -0.0};
    for (const char* lineEnd : {"\n", "\r\n"}) {
        const std::string text = DatasetWriter::metaText(fields, lineEnd);
        const Parsed parsed = parse(text);
        ASSERT_TRUE(parsed.meta);
        EXPECT_EQ(renderMeta(*parsed.meta, lineEnd), text);
    }
}

TEST(ReaderMeta, EveryPrefixIsRefusedWithoutACrash) {
    const std::string text = soundText();
    for (std::size_t length = 0; length + 2 < text.size(); ++length) {
        Findings findings;
        EXPECT_FALSE(parseMeta(text.substr(0, length), findings)) << length;
        ASSERT_EQ(findings.errorCount(), 1u);
        EXPECT_LE(findings.errors()[0].offset, length);
    }
}

TEST(ReaderMeta, EveryByteChangedIsFoundOrHarmless) {
    // Changes of free texts, of the guid's digits and of values that nothing repeats cannot be found. Nothing
    // may crash.
    const std::string text = soundText();
    std::size_t unnoticed = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        for (const char put : {'\0', '"', '{', ',', '9', 'x', '\n', '\xFF'}) {
            std::string changed = text;
            if (changed[at] == put) {
                continue;
            }
            changed[at] = put;
            const Parsed parsed = parse(changed);
            unnoticed += parsed.findings.errorCount() + parsed.findings.warningCount() == 0 ? 1u : 0u;
        }
    }
    EXPECT_LT(unnoticed,
              8 * 130u); // guid 32, free texts, offset, shift, scale, epsg and four unrepeated ranges
}

TEST(ReaderMeta, AMissingCommaIsNamedWithItsPlace) {
    const std::string text = replaced(soundText(), "\"4.0\",", "\"4.0\"");
    const Parsed parsed = parse(text);
    ASSERT_FALSE(parsed.meta);
    ASSERT_EQ(parsed.findings.errorCount(), 1u);
    const Finding& finding = parsed.findings.errors()[0];
    EXPECT_EQ(finding.kind, "meta-syntax");
    EXPECT_EQ(finding.offset, text.find("\"guid\""));
    EXPECT_EQ(finding.text(), "converted_from_ply.ytr, byte " + std::to_string(text.find("\"guid\"")) +
                                  ": expected \",\" or \"}\", found a quotation mark");
}

TEST(ReaderMeta, DeepAndLongTextsStopEarly) {
    Findings findings;
    EXPECT_FALSE(parseMeta(std::string(100'000, '['), findings));
    EXPECT_FALSE(parseMeta("[" + std::string(2'000'000, ','), findings));
    std::string items = "[1";
    for (int i = 0; i < 100'000; ++i) {
        items += ",1";
    }
    EXPECT_FALSE(parseMeta(items + "]", findings));
    EXPECT_EQ(findings.errorCount(), 3u);
}

struct Fault {
    const char* from;
    const char* to;
    const char* kind;
};

class ReaderMetaFault : public testing::TestWithParam<Fault> {};

TEST_P(ReaderMetaFault, IsFound) {
    const Fault& fault = GetParam();
    const std::string text = replaced(soundText(), fault.from, fault.to);
    const Parsed parsed = parse(text);
    ASSERT_GE(parsed.findings.errorCount(), 1u) << text;
    EXPECT_EQ(parsed.findings.errorKinds().count(fault.kind), 1u) << allFindings(parsed);
    for (const Finding& finding : parsed.findings.errors()) {
        EXPECT_LE(finding.offset, text.size());
        EXPECT_EQ(finding.text().find('\n'), std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Single, ReaderMetaFault,
    testing::Values(
        Fault{"{", "", "meta-syntax"}, Fault{"\t\"epsg\": 0,\n", "", "meta-keys"},
        Fault{"\"epsg\"", "\"Epsg\"", "meta-keys"}, Fault{"\"epsg\": 0", "\"epsg\": 0.5", "meta-keys"},
        Fault{"\"epsg\": 0", "\"epsg\": 2147483648", "meta-keys"},
        Fault{"\"epsg\": 0", "\"epsg\": \"0\"", "meta-keys"},
        Fault{"\"epsg\": 0,", "\"epsg\": 0,\n\t\"epsg\": 0,", "meta-keys"},
        Fault{"\"totalSplats\": 812", "\"totalSplats\": -1", "meta-keys"},
        Fault{"\"totalSplats\": 812", "\"totalSplats\": 18446744073709551616", "meta-keys"},
        Fault{"\"totalSplats\": 812", "\"totalSplats\": 813", "meta-counts"},
        Fault{"[812]", "[812, 1]", "meta-counts"}, Fault{"[812]", "812", "meta-keys"},
        Fault{"[812]", "[]", "meta-counts"}, Fault{"\"totalLevel\": 1", "\"totalLevel\": 0", "meta-counts"},
        Fault{"\"totalLevel\": 1", "\"totalLevel\": -1", "meta-counts"},
        Fault{"\"totalLevel\": 1", "\"totalLevel\": 2147483647", "meta-counts"},
        Fault{"\"totalLevel\": 1", "\"totalLevel\": true", "meta-keys"},
        Fault{"\"indexDataSize\": 20", "\"indexDataSize\": 36", "meta-counts"},
        Fault{"\"indexDataSize\": 20", "\"indexDataSize\": [20]", "meta-keys"},
        Fault{"\"4.0\"", "\"5.0\"", "meta-identity"}, Fault{"\"4.0\"", "4.0", "meta-keys"},
        Fault{"Tavrin Splats", "Tavrin splats", "meta-identity"},
        Fault{"all right", "all rights", "meta-identity"},
        Fault{"0123456789abcdef", "0123456789ABCDEF", "meta-identity"},
        Fault{"0123456789abcdef", "", "meta-identity"}, Fault{"COMPRESS", "RAW", "meta-identity"},
        Fault{"Quality", "quality", "meta-identity"},
        Fault{"\"cellLengthX\": 8", "\"cellLengthX\": 8.0000000001", "meta-cell-length"},
        Fault{"\"cellLengthY\": 4", "\"cellLengthY\": 30", "meta-cell-length"},
        Fault{"\"cellLengthY\": 4", "\"cellLengthY\": null", "meta-keys"},
        Fault{"\"cellLengthY\": 4", "\"cellLengthY\": nan", "meta-cell-length"},
        Fault{"\"offset\": [0, 0, 0]", "\"offset\": [0, 0]", "meta-keys"},
        Fault{"\"offset\": [0, 0, 0]", "\"offset\": [0, 0, \"0\"]", "meta-keys"},
        Fault{"\"shift\": [0, 0, 0]", "\"shift\": {}", "meta-keys"},
        Fault{"\"min\": [0, 0, 0], \n\t\t\"max\": [8, 4, 2]", "\"min\": [9, 0, 0], \n\t\t\"max\": [8, 4, 2]",
              "meta-range"},
        Fault{"\"max\": [8, 4, 2]", "\"max\": [inf, 4, 2]", "meta-range"},
        Fault{"\"max\": [8, 4, 2]", "\"max\": [8, 4, 2.5]", "meta-position"},
        Fault{"\"max\": [8, 4, 2]", "\"Max\": [8, 4, 2]", "meta-keys"},
        Fault{"[80, 40, 20]", "[8, 4, 2]", "meta-position"}, Fault{"\"position\"", "\"normal\"", "meta-keys"},
        Fault{"\"name\": \"envscale\"", "\"name\": \"scale\"", "meta-keys"},
        Fault{"\"name\": \"envscale\"", "\"label\": \"envscale\"", "meta-keys"},
        Fault{"[-1, -1, -1]", "[-1, -2, -1]", "meta-repeat"},
        Fault{"[-1, -1, -1]", "[-1, 2, -1]", "meta-range"},
        Fault{"[-1, -1, -1]", "[nan, -1, -1]", "meta-range"}, Fault{"[-1, -1, -1]", "[-1, -1]", "meta-keys"},
        Fault{"\"min\": [0]", "\"min\": [0, 0, 0]", "meta-keys"},
        Fault{"\"min\": [0]", "\"min\": 0", "meta-keys"},
        Fault{"\"min\": [0]", "\"min\": [-0.1]", "meta-range"},
        Fault{"\"max\": [1]", "\"max\": [1.5]", "meta-range"},
        Fault{"\"color\",\n\t\t\t\"min\": [0, 0, 0]", "\"color\",\n\t\t\t\"min\": [-1, 0, 0]", "meta-range"},
        Fault{"\"scale\",\n\t\t\t\"min\": [0.25, 0.25, 0.25]", "\"scale\",\n\t\t\t\"min\": [-1, 0.25, 0.25]",
              "meta-range"},
        Fault{"\t\t},\n\t\t{", "\t\t},\n\t\t{},\n\t\t{", "meta-keys"},
        Fault{"\n}\n", "\n}\n}", "meta-syntax"}, Fault{"\"guid\": ", "\"guid\" ", "meta-syntax"},
        Fault{"\t]\n}", "\t\n}", "meta-syntax"}));

} // namespace
