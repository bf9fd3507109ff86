// The effect of the header's lines on the meta document.

#include "tests/blackbox/blackbox.h"

namespace blackbox {
namespace {

using support::metaValue;
using support::PlyFile;

class Header : public BlackBox {
protected:
    // The meta document of a scene of two splats, at (-1, -2, -3) and (4, 5, 6), with these comment lines.
    // The scan of the box steps over records with coefficients.
    std::string metaWith(const std::vector<std::string>& comments) {
        PlyFile ply;
        ply.coefficients = true;
        ply.comments = comments;
        ply.add({.position = {-1.0f, -2.0f, -3.0f}});
        ply.add({.position = {4.0f, 5.0f, 6.0f}});
        ply.write(input);
        return metaAfterConversion();
    }
};

const std::string scannedBox = "{\n\t\t\"min\": [-1, -2, -3], \n\t\t\"max\": [4, 5, 6]\n\t}";

std::string boxOf(const std::string& meta) {
    const std::string before = "\t\"boundingBox\": ";
    const std::size_t start = meta.find(before) + before.size();
    return meta.substr(start, meta.find("\n\t}", start) + 3 - start);
}

TEST_F(Header, WithoutCommentsTheDefaultsStand) {
    const std::string meta = metaWith({});
    EXPECT_EQ(metaValue(meta, "source"), "\"ply\"");
    EXPECT_EQ(metaValue(meta, "dataType"), "\"None\"");
    EXPECT_EQ(metaValue(meta, "totalSplats"), "2");
    EXPECT_EQ(metaValue(meta, "totalLevel"), "1");
    EXPECT_EQ(metaValue(meta, "cellLengthX"), "5");
    EXPECT_EQ(metaValue(meta, "cellLengthY"), "7");
    EXPECT_EQ(metaValue(meta, "indexDataSize"), "20");
    EXPECT_EQ(metaValue(meta, "offset"), "[0, 0, 0]");
    EXPECT_EQ(metaValue(meta, "epsg"), "0");
    EXPECT_EQ(metaValue(meta, "shift"), "[0, 0, 0]");
    EXPECT_EQ(metaValue(meta, "scale"), "[1, 1, 1]");
    EXPECT_EQ(metaValue(meta, "splats"), "[2]");
    EXPECT_EQ(boxOf(meta), scannedBox);
    EXPECT_EQ(metaValue(meta, "encoding"), "\"COMPRESS\"");
    EXPECT_EQ(metaValue(meta, "fileType"), "\"Quality\"");
}

TEST_F(Header, SourceAndDataTypeAreWrittenCrosswise) {
    const std::string meta = metaWith({"comment source scan1", "comment dataType mesh"});
    EXPECT_EQ(metaValue(meta, "source"), "\"mesh\"");
    EXPECT_EQ(metaValue(meta, "dataType"), "\"scan1\"");
}

TEST_F(Header, EveryNumberReachesTheDocument) {
    const std::string meta = metaWith(
        {"comment epsg 32632", "comment offsetx 0.1", "comment offsety 12.345678", "comment offsetz -0",
         "comment shiftx 0.00001", "comment shifty 1e17", "comment shiftz 16777217", "comment scalex 2",
         "comment scaley 0x1p-3", "comment scalez inf"});
    EXPECT_EQ(metaValue(meta, "epsg"), "32632");
    EXPECT_EQ(metaValue(meta, "offset"), "[0.10000000149011612, 12.345678329467773, -0]");
    EXPECT_EQ(metaValue(meta, "shift"), "[9.9999997473787516e-06, 99999998430674944, 16777216]");
    EXPECT_EQ(metaValue(meta, "scale"), "[2, 0.125, inf]");
}

TEST_F(Header, TextAfterANumberIsIgnored) {
    const std::string meta = metaWith({"comment epsg 4326;WGS84", "comment scalex 2.5m"});
    EXPECT_EQ(metaValue(meta, "epsg"), "4326");
    EXPECT_EQ(metaValue(meta, "scale"), "[2.5, 1, 1]");
}

TEST_F(Header, ALineOfFourWordsIsNone) {
    const std::string meta = metaWith({"comment source my scan", "comment epsg 4326 ?"});
    EXPECT_EQ(metaValue(meta, "dataType"), "\"None\"");
    EXPECT_EQ(metaValue(meta, "epsg"), "0");
}

TEST_F(Header, UnknownKeysAreIgnored) {
    const std::string meta = metaWith({"comment Source x", "comment version 7"});
    EXPECT_EQ(metaValue(meta, "source"), "\"ply\"");
    EXPECT_EQ(metaValue(meta, "dataType"), "\"None\"");
}

TEST_F(Header, WordsMayStandApartByBlanksTabsAndACarriageReturn) {
    const std::string meta = metaWith({"comment \t source\t  scan1 \r"});
    EXPECT_EQ(metaValue(meta, "dataType"), "\"scan1\"");
}

TEST_F(Header, AQuoteIsWrittenAsItStands) {
    const std::string meta = metaWith({"comment source a\"b\\c"});
    EXPECT_EQ(metaValue(meta, "dataType"), "\"a\"b\\c\"");
}

TEST_F(Header, AStatedBoundMakesTheDataTypeYtr) {
    EXPECT_EQ(metaValue(metaWith({"comment minx 5"}), "source"), "\"ytr\"");
    EXPECT_EQ(metaValue(metaWith({"comment maxx 5"}), "source"), "\"ytr\"");
    EXPECT_EQ(metaValue(metaWith({"comment miny 5"}), "source"), "\"ply\"");
}

TEST_F(Header, TheDataTypeCommentWinsWhereverItStands) {
    EXPECT_EQ(metaValue(metaWith({"comment minx 5", "comment dataType mesh"}), "source"), "\"mesh\"");
    EXPECT_EQ(metaValue(metaWith({"comment dataType mesh", "comment minx 5"}), "source"), "\"mesh\"");
}

TEST_F(Header, StatedBoundsAreTakenAsTheyAre) {
    const std::string meta = metaWith({"comment minx -1.5", "comment miny 0", "comment minz 2",
                                       "comment maxx 3", "comment maxy 4", "comment maxz 5"});
    EXPECT_EQ(boxOf(meta), "{\n\t\t\"min\": [-1.5, 0, 2], \n\t\t\"max\": [3, 4, 5]\n\t}");
    EXPECT_THAT(meta, testing::HasSubstr("\t\t\t\"name\": \"position\",\n\t\t\t\"min\": [-15, 0, 20], \n"
                                         "\t\t\t\"max\": [30, 40, 50]\n\t\t},\n"));
    EXPECT_EQ(metaValue(meta, "cellLengthX"), "4.5");
    EXPECT_EQ(metaValue(meta, "cellLengthY"), "4");
}

TEST_F(Header, AStatedMinimumOfZeroIsScannedAnyway) {
    const std::string meta = metaWith({"comment minx 0", "comment maxx 50"});
    EXPECT_EQ(boxOf(meta), scannedBox);
    EXPECT_EQ(metaValue(meta, "source"), "\"ytr\"");
}

TEST_F(Header, AStatedMaximumNearZeroIsScannedAnyway) {
    EXPECT_EQ(boxOf(metaWith({"comment minx 2", "comment maxx 0.05"})), scannedBox);
    EXPECT_EQ(boxOf(metaWith({"comment minx 0.001", "comment maxx 2"})), scannedBox);
    EXPECT_EQ(boxOf(metaWith({"comment minx 2", "comment maxx 0.1"})), scannedBox);
    EXPECT_NE(boxOf(metaWith({"comment minx -0.0011", "comment maxx -0.11"})), scannedBox);
}

TEST_F(Header, AScannedBoxHoldsTheOrigin) {
    PlyFile ply;
    ply.coefficients = true;
    ply.add({.position = {2.0f, -8.0f, 3.0f}});
    ply.add({.position = {5.0f, -7.0f, 4.0f}});
    ply.write(input);
    EXPECT_EQ(boxOf(metaAfterConversion()), "{\n\t\t\"min\": [0, -8, 0], \n\t\t\"max\": [5, 0, 4]\n\t}");
}

// Records have 17 floats but the scan steps by 62. Of two records it reads the first, and then beyond the end
// of the file.
TEST_F(Header, RecordsWithoutCoefficientsAreScannedWithTheLongStride) {
    PlyFile ply;
    ply.add({.position = {-1.0f, -2.0f, -3.0f}});
    ply.add({.position = {4.0f, 5.0f, 6.0f}});
    ply.add({.position = {7.0f, 8.0f, 9.0f}});
    ply.write(input);
    EXPECT_EQ(boxOf(metaAfterConversion()), "{\n\t\t\"min\": [-1, -2, -3], \n\t\t\"max\": [0, 0, 0]\n\t}");
}

TEST_F(Header, TheLastElementGivesTheCount) {
    PlyFile ply;
    for (int i = 0; i < 10; ++i) {
        ply.add({});
    }
    ply.moreElements = {"element face 3"};
    ply.write(input);
    const std::string meta = metaAfterConversion();
    EXPECT_EQ(metaValue(meta, "totalSplats"), "3");
    EXPECT_EQ(metaValue(meta, "splats"), "[3]");
    EXPECT_EQ(fs::file_size(output / "data.bin"), 3u * 32);
}

// A line counts when it contains the keyword anywhere.
TEST_F(Header, KeywordsMayStandInsideALine) {
    PlyFile ply = oneSplat();
    ply.comments = {"my-comment source inside", "subelement vertex 7"};
    ply.elementLine = "#";
    ply.write(input);
    const std::string meta = metaAfterConversion();
    EXPECT_EQ(metaValue(meta, "dataType"), "\"inside\"");
    EXPECT_EQ(metaValue(meta, "totalSplats"), "7");
}

TEST_F(Header, AFaceListAfterTheRecordsIsNotRead) {
    PlyFile ply = oneSplat();
    support::writeFile(input, ply.bytes() + "list of faces");
    convertToTheEnd();
    EXPECT_EQ(fs::file_size(output / "data.bin"), 32u);
}

// Without the end line the whole file is header, so all records are beyond its end and are zeros.
TEST_F(Header, AnEndLineWithACarriageReturnIsNoEnd) {
    PlyFile ply = oneSplat();
    std::string bytes = ply.bytes();
    bytes.insert(bytes.find("end_header") + 10, "\r");
    support::writeFile(input, bytes);
    convertToTheEnd();
    const support::DatasetFiles files = support::readDataset(output);
    ASSERT_EQ(files.data.size(), 32u);
    EXPECT_EQ(valueAt<float>(files.data, 0), 0.0f);
    EXPECT_EQ(boxOf(files.meta), "{\n\t\t\"min\": [0, 0, 0], \n\t\t\"max\": [0, 0, 0]\n\t}");
}

TEST_F(Header, CarriageReturnsBeforeTheEndLineDoNoHarm) {
    PlyFile ply = oneSplat();
    ply.comments = {"comment source scan1"};
    std::string header = ply.header();
    const std::string end = "end_header\n";
    header.resize(header.size() - end.size());
    std::string bytes;
    for (const char c : header) {
        bytes += c == '\n' ? "\r\n" : std::string(1, c);
    }
    support::writeFile(input, bytes + end + ply.bytes().substr(ply.header().size()));
    convertToTheEnd();
    const support::DatasetFiles files = support::readDataset(output);
    EXPECT_EQ(valueAt<float>(files.data, 0), 1.0f);
    EXPECT_EQ(metaValue(files.meta, "dataType"), "\"scan1\"");
}

} // namespace
} // namespace blackbox
