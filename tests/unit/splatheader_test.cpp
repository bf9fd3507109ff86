#include "src/splatheader.h"

#include "tests/support/deathtest.h"
#include "tests/support/fields.h"
#include "tests/support/files.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#if !defined(_WIN32)
#include <sys/resource.h>
#endif

namespace Tavrin::GaussionSplat {

namespace {

using Lines = std::vector<std::string>;

struct SplatHeaderTest : testing::Test {
    support::Scratch scratch;
    std::shared_ptr<Params> params = std::make_shared<Params>();

    std::string write(const std::string& bytes) const {
        const std::filesystem::path path = scratch / "scene.ply";
        support::writeFile(path, bytes);
        return path.string();
    }

    // Reads the header of a file with these bytes into new params.
    SplatHeader read(const std::string& bytes) {
        params = std::make_shared<Params>();
        return SplatHeader(write(bytes), params, 1);
    }

    // Reads a header with these lines between "ply" and "end_header". Bounds in front of them avoid the scan;
    // bounds in `lines` override those.
    SplatHeader readLines(const Lines& lines) {
        std::string text = "ply\ncomment minx 1\ncomment maxx 2\n";
        for (const std::string& line : lines) {
            text += line + '\n';
        }
        return read(text + "end_header\n");
    }

    // The same without bounds.
    SplatHeader readBare(const Lines& lines) {
        std::string text = "ply\n";
        for (const std::string& line : lines) {
            text += line + '\n';
        }
        return read(text + "end_header\n");
    }

    bool check(const std::string& bytes) const { return checkSplatHeader(write(bytes)); }
};

support::Splat splatAt(float x, float y, float z) {
    support::Splat splat;
    splat.position = {x, y, z};
    return splat;
}

void expectVector(const Vector3& value, double x, double y, double z) {
    EXPECT_EQ(value.x, x);
    EXPECT_EQ(value.y, y);
    EXPECT_EQ(value.z, z);
}

const std::string fourProperties = "property float f_dc_0\nproperty float opacity\nproperty float scale_0\n"
                                   "property float rot_0\n";

TEST_F(SplatHeaderTest, CheckWantsTheFourSplatProperties) {
    EXPECT_TRUE(check(fourProperties + "end_header\n"));
    for (const char* missing : {"f_dc_0", "opacity", "scale_0", "rot_0"}) {
        support::PlyFile file;
        file.leftOut = {missing};
        EXPECT_FALSE(check(file.bytes())) << missing;
    }
    for (const bool coefficients : {false, true}) {
        support::PlyFile file;
        file.coefficients = coefficients;
        EXPECT_TRUE(check(file.bytes()));
    }
}

TEST_F(SplatHeaderTest, CheckLooksAtWordsAlone) {
    struct Row {
        const char* what;
        std::string text;
        bool passes;
    };
    const std::string three = "property float f_dc_0\nproperty float opacity\nproperty float scale_0\n";
    const Row rows[] = {
        {"neither magic, format nor element is needed", fourProperties + "end_header\n", true},
        {"end_header is not needed", fourProperties, true},
        {"nor the last line end", three + "property float rot_0", true},
        {"any order", "property float rot_0\n" + three, true},
        {"any type", three + "property double rot_0\n", true},
        {"runs of blanks and tabs", three + "  property \t float  rot_0\t \n", true},
        {"carriage returns", three + "property float rot_0\r\n", true},
        {"property anywhere in the line", three + "xproperty float rot_0\n", true},
        {"property in another word", three + "a myproperty rot_0\n", true},
        {"two words", three + "property rot_0\n", false},
        {"four words", three + "property float rot_0 x\n", false},
        {"a list", three + "property list uchar rot_0\n", false},
        {"another case", three + "Property float rot_0\n", false},
        {"a longer name", three + "property float rot_01\n", false},
        {"the name second", three + "property rot_0 float\n", false},
        {"only behind end_header", three + "end_header\nproperty float rot_0\n", false},
        {"behind an end_header with a carriage return", three + "end_header\r\nproperty float rot_0\n", true},
        {"behind an end_header with a blank", three + "end_header \nproperty float rot_0\n", true},
        {"behind an indented end_header", three + " end_header\nproperty float rot_0\n", true},
        {"form feeds do not separate words", three + "property\ffloat\frot_0\n", false},
        {"nothing at all", "", false},
        {"a bare end_header", "end_header\n", false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(check(row.text), row.passes) << row.what;
    }
}

TEST_F(SplatHeaderTest, CheckSaysWhenTheFileCannotBeOpened) {
    bool passes = true;
    const std::string output =
        support::standardOutputOf([&] { passes = checkSplatHeader((scratch / "missing.ply").string()); });
    EXPECT_FALSE(passes);
    EXPECT_EQ(support::withPlainLineEnds(output), "cannot open file\n");
}

TEST_F(SplatHeaderTest, CheckIsSilentAboutAFileItRejects) {
    EXPECT_EQ(support::standardOutputOf([&] { EXPECT_FALSE(check("ply\nend_header\n")); }), "");
}

TEST(SplatHeader, DeclaresItsFieldsInOrderWithTheirDefaults) {
    const SplatHeader header;
    support::expectDeclaredInOrder({{"path", header.path},
                                    {"fileSize", header.fileSize},
                                    {"level", header.level},
                                    {"headerEnd", header.headerEnd},
                                    {"vertexCount", header.vertexCount},
                                    {"recordSize", header.recordSize},
                                    {"bboxMin", header.bboxMin},
                                    {"bboxMax", header.bboxMax},
                                    {"unused", header.unused},
                                    {"hasShcoef", header.hasShcoef},
                                    {"boundsFromHeader", header.boundsFromHeader}});
    static_assert(std::is_same_v<decltype(SplatHeader::fileSize), std::uint64_t>);
    static_assert(std::is_same_v<decltype(SplatHeader::level), std::uint32_t>);
    static_assert(std::is_same_v<decltype(SplatHeader::vertexCount), std::int64_t>);
    static_assert(std::is_same_v<decltype(SplatHeader::recordSize), std::uint32_t>);
    EXPECT_EQ(header.path, "");
    EXPECT_EQ(header.fileSize, 0u);
    EXPECT_EQ(header.level, 0u);
    EXPECT_EQ(header.vertexCount, 0);
    EXPECT_EQ(header.recordSize, 68u);
    expectVector(header.bboxMin, 0.0, 0.0, 0.0);
    expectVector(header.bboxMax, 0.0, 0.0, 0.0);
    ASSERT_EQ(std::size(header.unused), 3u);
    for (const Vector3& corner : header.unused) {
        expectVector(corner, 0.0, 0.0, 0.0);
    }
    EXPECT_FALSE(header.hasShcoef);
    EXPECT_FALSE(header.boundsFromHeader);
}

TEST_F(SplatHeaderTest, ReadsAWholeHeader) {
    support::PlyFile file;
    file.coefficients = true;
    file.comments = {"comment minx -3", "comment miny -4", "comment minz -5",
                     "comment maxx 3",  "comment maxy 4",  "comment maxz 5"};
    file.add(support::Splat());
    file.add(support::Splat());
    const SplatHeader header = read(file.bytes());
    EXPECT_EQ(header.path, (scratch / "scene.ply").string());
    EXPECT_EQ(header.fileSize, file.bytes().size());
    EXPECT_EQ(header.level, 0u);
    EXPECT_EQ(header.headerEnd, static_cast<std::int64_t>(file.header().size()));
    EXPECT_EQ(header.vertexCount, 2);
    EXPECT_EQ(header.recordSize, 68u); // whatever the properties; the entry point raises it
    expectVector(header.bboxMin, -3.0, -4.0, -5.0);
    expectVector(header.bboxMax, 3.0, 4.0, 5.0);
    expectVector(header.unused[0], 0.0, 0.0, 0.0);
    EXPECT_TRUE(header.hasShcoef);
    EXPECT_TRUE(header.boundsFromHeader);
    EXPECT_EQ(params->dataType, "ytr");
    EXPECT_EQ(params->source, "None");
}

TEST_F(SplatHeaderTest, TheFlagIsIgnored) {
    const std::string path = write("comment minx 5\ncomment maxx 6\nelement vertex 3\nend_header\n");
    for (const std::int32_t flag : {-1, 0, 1, 2}) {
        EXPECT_EQ(SplatHeader(path, params, flag).vertexCount, 3);
    }
}

TEST_F(SplatHeaderTest, ShcoefNeedsAPropertyOfThatName) {
    EXPECT_TRUE(readLines({"property float f_rest_0"}).hasShcoef);
    EXPECT_TRUE(readLines({"property double f_rest_0\r"}).hasShcoef);
    EXPECT_FALSE(readLines({"property float f_rest_1"}).hasShcoef);
    EXPECT_FALSE(readLines({"property float f_rest_00"}).hasShcoef);
    EXPECT_FALSE(readLines({"comment float f_rest_0"}).hasShcoef);
    EXPECT_FALSE(readLines({"property float f_rest_0 x"}).hasShcoef);
    EXPECT_TRUE(readLines({"property float f_rest_0", "property float x"}).hasShcoef);
}

TEST_F(SplatHeaderTest, EveryFloatKeySetsItsFieldAlone) {
    struct Row {
        const char* key;
        double Params::*field;
    };
    const Row rows[] = {
        {"minx", &Params::minx},       {"miny", &Params::miny},       {"minz", &Params::minz},
        {"maxx", &Params::maxx},       {"maxy", &Params::maxy},       {"maxz", &Params::maxz},
        {"offsetx", &Params::offsetx}, {"offsety", &Params::offsety}, {"offsetz", &Params::offsetz},
        {"shiftx", &Params::shiftx},   {"shifty", &Params::shifty},   {"shiftz", &Params::shiftz},
        {"scalex", &Params::scalex},   {"scaley", &Params::scaley},   {"scalez", &Params::scalez},
    };
    for (const Row& row : rows) {
        readLines({std::string("comment ") + row.key + " 0.1"});
        for (const Row& other : rows) {
            const bool isX = other.field == &Params::minx || other.field == &Params::maxx;
            const Params defaults;
            const double untouched = isX ? (other.field == &Params::minx ? 1.0 : 2.0) : defaults.*other.field;
            const double expected = other.field == row.field ? 0.100000001490116119384765625 : untouched;
            EXPECT_EQ((*params).*other.field, expected) << other.key << " after " << row.key;
        }
        EXPECT_EQ(params->epsg, 0);
        EXPECT_EQ(params->source, "None");
    }
}

TEST_F(SplatHeaderTest, EpsgAndTextsSetTheirFields) {
    readLines({"comment epsg 4326", "comment source scan1", "comment dataType mesh"});
    EXPECT_EQ(params->epsg, 4326);
    EXPECT_EQ(params->source, "scan1");
    EXPECT_EQ(params->dataType, "mesh");
    readLines({"comment epsg -7abc", "comment source \"x\\y"});
    EXPECT_EQ(params->epsg, -7);
    EXPECT_EQ(params->source, "\"x\\y");
}

TEST_F(SplatHeaderTest, TheLastCommentOfAKeyWins) {
    readLines({"comment offsetx 1", "comment source a", "comment epsg 1", "comment dataType a",
               "comment offsetx 2", "comment source b", "comment epsg 2", "comment dataType b"});
    EXPECT_EQ(params->offsetx, 2.0);
    EXPECT_EQ(params->source, "b");
    EXPECT_EQ(params->epsg, 2);
    EXPECT_EQ(params->dataType, "b");
}

TEST_F(SplatHeaderTest, CommentsOfOtherThanThreeWordsOrUnknownKeysAreIgnored) {
    const SplatHeader header =
        readBare({"comment source my scan", "comment source", "comment", "comment Source x",
                  "comment SOURCE x", "comment sources x", "comment minX 5", "comment hello world",
                  "comment  ", "Comment source x", "comment minx=5 maxx=7", "comment epsg abc def"});
    EXPECT_EQ(params->source, "None");
    EXPECT_EQ(params->dataType, "ply");
    EXPECT_FALSE(header.boundsFromHeader);
}

TEST_F(SplatHeaderTest, WordsAreSeparatedByBlanksTabsAndCarriageReturns) {
    readLines({" comment\t\tsource  \tscan1 \t", "comment\roffsetx\r3\r", "comment\vepsg\v5"});
    EXPECT_EQ(params->source, "scan1");
    EXPECT_EQ(params->offsetx, 3.0);
    EXPECT_EQ(params->epsg, 0); // a vertical tab is no separator: one word
}

TEST_F(SplatHeaderTest, KeywordsMayStandAnywhereInTheLine) {
    const SplatHeader header = readLines(
        {"xcommentx source a", "source commented x", "my-element vertex 12", "a subproperty f_rest_0"});
    EXPECT_EQ(params->source, "a");
    EXPECT_EQ(header.vertexCount, 12);
    EXPECT_TRUE(header.hasShcoef);
}

// One line may pass several tests; each looks at its own words.
TEST_F(SplatHeaderTest, ALineMayBeElementCommentAndProperty) {
    const SplatHeader header = readLines({"comment,element,property source 25"});
    EXPECT_EQ(params->source, "25");
    EXPECT_EQ(header.vertexCount, 25);
    EXPECT_TRUE(readLines({"commentproperty source f_rest_0"}).hasShcoef);
    EXPECT_EQ(params->source, "f_rest_0");
}

TEST_F(SplatHeaderTest, TheLastElementLineWins) {
    EXPECT_EQ(readLines({"element vertex 1000"}).vertexCount, 1000);
    EXPECT_EQ(readLines({"element vertex 1000", "element face 3"}).vertexCount, 3);
    EXPECT_EQ(readLines({"element vertex 9000000000"}).vertexCount, 9'000'000'000);
    EXPECT_EQ(readLines({"element vertex -5"}).vertexCount, -5);
    EXPECT_EQ(readLines({"element vertex 7x"}).vertexCount, 7);
    EXPECT_EQ(readLines({"element vertex 4", "element vertex", "element vertex 9 9"}).vertexCount, 4);
}

TEST_F(SplatHeaderTest, DataTypeFollowsTheCommentsInTheirOrder) {
    struct Row {
        Lines lines;
        const char* dataType;
        bool bounds;
    };
    const Row rows[] = {
        {{}, "ply", false},
        {{"comment miny 5"}, "ply", false},
        {{"comment maxy 5", "comment minz 5", "comment maxz 5", "comment offsetx 5"}, "ply", false},
        {{"comment minx 5"}, "ytr", true},
        {{"comment maxx 5"}, "ytr", true},
        {{"comment dataType mesh"}, "mesh", false},
        {{"comment dataType mesh", "comment minx 5"}, "mesh", true},
        {{"comment minx 5", "comment dataType mesh"}, "mesh", true},
        {{"comment maxx 5", "comment dataType mesh", "comment minx 5"}, "mesh", true},
        {{"comment dataType ply"}, "ply", false},
        {{"comment dataType two words"}, "ply", false},
    };
    for (const Row& row : rows) {
        const SplatHeader header = readBare(row.lines);
        EXPECT_EQ(params->dataType, row.dataType) << (row.lines.empty() ? "" : row.lines.front());
        EXPECT_EQ(header.boundsFromHeader, row.bounds) << (row.lines.empty() ? "" : row.lines.front());
    }
}

TEST_F(SplatHeaderTest, NumbersThatAreNoneLeaveAsStandardErrors) {
    struct Row {
        const char* line;
        const char* text;
        bool outOfRange;
    };
    const Row rows[] = {
        {"comment epsg abc", "invalid stoi argument", false},
        {"comment epsg 99999999999", "stoi argument out of range", true},
        {"comment minx abc", "invalid stof argument", false},
        {"comment scalez 1e99", "stof argument out of range", true},
        {"comment offsety -", "invalid stof argument", false},
        {"element vertex many", "invalid stoll argument", false},
        {"element vertex 9223372036854775808", "stoll argument out of range", true},
    };
    for (const Row& row : rows) {
        try {
            readLines({row.line});
            ADD_FAILURE() << row.line;
        } catch (const std::invalid_argument& error) {
            EXPECT_FALSE(row.outOfRange) << row.line;
            EXPECT_STREQ(error.what(), row.text);
        } catch (const std::out_of_range& error) {
            EXPECT_TRUE(row.outOfRange) << row.line;
            EXPECT_STREQ(error.what(), row.text);
        }
    }
}

TEST_F(SplatHeaderTest, StatedBoundsCountWhenBothXBoundsAreAwayFromTheirDefaults) {
    struct Row {
        const char* minx;
        const char* maxx;
        bool fromHeader;
    };
    const Row rows[] = {
        {"5", "50", true},           {"0", "50", false},      {"2", "0.05", false},
        {"0.001", "50", false},      {"-0.001", "50", false}, {"0.00100001", "50", true},
        {"-0.00100001", "50", true}, {"5", "0.1", false},     {"5", "-0.1", false},
        {"5", "0.10001", true},      {"5", "-0.10001", true}, {"-7", "-3", true},
        {"inf", "50", true},         {"nan", "50", false},    {"5", "nan", false},
    };
    for (const Row& row : rows) {
        support::PlyFile file;
        file.comments = {std::string("comment minx ") + row.minx, std::string("comment maxx ") + row.maxx,
                         "comment miny 70", "comment maxy 80"};
        file.add(splatAt(-9.0f, -8.0f, -7.0f));
        const SplatHeader header = read(file.bytes());
        EXPECT_TRUE(header.boundsFromHeader);
        EXPECT_EQ(header.bboxMin.y, row.fromHeader ? 70.0 : -8.0) << row.minx << ' ' << row.maxx;
        EXPECT_EQ(header.bboxMax.y, row.fromHeader ? 80.0 : 0.0) << row.minx << ' ' << row.maxx;
    }
}

TEST_F(SplatHeaderTest, BoundsThatAreNotStatedKeepTheirDefaults) {
    const SplatHeader header = readBare({"comment minx 5", "comment maxx 50"});
    expectVector(header.bboxMin, 5.0, 0.0, 0.0);
    expectVector(header.bboxMax, 50.0, 1.0, 1.0);
}

TEST_F(SplatHeaderTest, WithoutStatedBoundsTheRecordsAreScanned) {
    support::PlyFile file;
    file.coefficients = true;
    file.add(splatAt(-1.0f, 2.0f, 30.0f));
    file.add(splatAt(4.0f, -5.0f, 6.0f));
    const SplatHeader header = read(file.bytes());
    expectVector(header.bboxMin, -1.0, -5.0, 0.0);
    expectVector(header.bboxMax, 4.0, 2.0, 30.0);
    EXPECT_FALSE(header.boundsFromHeader);
    EXPECT_EQ(params->minx, 0.0); // params keep what the header states
    EXPECT_EQ(params->maxx, 1.0);
}

TEST_F(SplatHeaderTest, HeaderEndIsJustBehindTheEndHeaderLine) {
    const std::string bounds = "comment minx 1\ncomment maxx 2\n";
    struct Row {
        const char* what;
        std::string text;
        std::size_t end;
    };
    const std::string plain = bounds + "end_header\n";
    const std::string binary("\0\n\r\xFF"
                             "end_header\n\0",
                             16);
    const std::string crlf = bounds + "end_header\r\n";
    const Row rows[] = {
        {"nothing behind it", plain, plain.size()},
        {"records behind it", plain + binary, plain.size()},
        {"no line end", bounds + "end_header", plain.size() - 1},
        {"no end_header", bounds, bounds.size()},
        {"no end_header and no line end", bounds + "comment", bounds.size() + 7},
        {"a carriage return", crlf + "tail", crlf.size() + 4},
        {"a second end_header behind the carriage return", crlf + "end_header\ntail", crlf.size() + 11},
        {"a blank behind the word", bounds + "end_header \n", bounds.size() + 12},
        {"an empty file", "", 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(read(row.text).headerEnd, static_cast<std::int64_t>(row.end)) << row.what;
    }
}

// A header without an end continues in the body, where anything that looks like a header line counts.
TEST_F(SplatHeaderTest, WithoutAnEndTheBodyIsReadAsHeaderLines) {
    const std::string body("\x01\x02\ncomment source body\nelement face 8\nproperty int f_rest_0\n\0\0\0",
                           62);
    const SplatHeader header =
        read("comment minx 1\ncomment maxx 2\nelement vertex 5\nend_header\r\n" + body);
    EXPECT_EQ(params->source, "body");
    EXPECT_EQ(header.vertexCount, 8);
    EXPECT_TRUE(header.hasShcoef);
}

TEST_F(SplatHeaderTest, LinesBehindTheEndDoNotCount) {
    const SplatHeader header = read("comment minx 1\ncomment maxx 2\nelement vertex 5\nend_header\n"
                                    "element vertex 6\ncomment source late\nproperty float f_rest_0\n");
    EXPECT_EQ(header.vertexCount, 5);
    EXPECT_EQ(params->source, "None");
    EXPECT_FALSE(header.hasShcoef);
}

TEST_F(SplatHeaderTest, AMissingFileIsTheFileSystemErrorOfItsSize) {
    const std::string missing = (scratch / "missing.ply").string();
    try {
        SplatHeader(missing, params, 1);
        FAIL();
    } catch (const std::filesystem::filesystem_error& error) {
        EXPECT_NE(std::string(error.what()).find("file_size"), std::string::npos) << error.what();
        EXPECT_EQ(error.path1().string(), missing);
        EXPECT_EQ(error.code(), std::errc::no_such_file_or_directory);
    }
}

#if !defined(_WIN32)
void limitOpenFiles(rlim_t files) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = files;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// From now on no file can be opened, except at the end of the process, when a sanitizer opens files of its
// own.
void forbidOpening() {
    std::atexit([] { limitOpenFiles(100); });
    limitOpenFiles(0);
}

// The file exists, but no file can be opened any more.
TEST_F(SplatHeaderTest, AFileThatCannotBeOpenedEndsTheProcess) {
    const std::string path = write(fourProperties + "end_header\n");
    EXPECT_PROCESS_EXIT(
        {
            // A sanitizer also opens files when it first sees a type, so this makes it do so now.
            checkSplatHeader((scratch / "missing").string());
            SplatHeader(path, params, 1);
            forbidOpening();
            SplatHeader(path, params, 1);
        },
        support::statusMinusOne, "^cannot open file\ncannot open file\n$");
}
#endif

} // namespace

} // namespace Tavrin::GaussionSplat
