// Results, the order of the steps, and what happens to the output folder.

#include "tests/blackbox/blackbox.h"

namespace blackbox {
namespace {

using support::Host;
using support::HostReport;
using support::PlyFile;

const std::set<std::string> filesWithoutCoefficients{"converted_from_ply.ytr", "data.bin", "index.bin",
                                                     "log.txt"};
const std::set<std::string> filesWithCoefficients{"converted_from_ply.ytr", "data.bin", "index.bin",
                                                  "log.txt", "shcoef.bin"};

class Results : public BlackBox {
protected:
    // Expects this result, other than 0, from a call that prints nothing and does not touch the old output
    // folder.
    void expectRefused(int result) {
        makeOldOutput();
        const HostReport report = convert();
        ASSERT_EQ(report.calls.size(), 1u);
        EXPECT_EQ(report.calls.front().result, result);
        EXPECT_TRUE(report.endReached);
        EXPECT_EQ(report.process.output, "");
        EXPECT_EQ(report.process.errors, "");
        expectOldOutputUntouched();
    }
};

TEST_F(Results, AMissingInputGivesMinusTwo) {
    expectRefused(-2);
}

TEST_F(Results, AMissingInputCreatesNothing) {
    EXPECT_EQ(convert().calls.at(0).result, -2);
    EXPECT_FALSE(fs::exists(output));
}

TEST_F(Results, AnInputBelowAFileIsMissing) {
    support::writeFile(scratch / "file", "");
    input = scratch / "file" / "scene.ply";
    expectRefused(-2);
}

class LackingProperty : public Results, public testing::WithParamInterface<const char*> {};

TEST_P(LackingProperty, GivesMinusOne) {
    PlyFile ply = oneSplat();
    ply.leftOut = {GetParam()};
    ply.write(input);
    expectRefused(-1);
}

INSTANTIATE_TEST_SUITE_P(All, LackingProperty, testing::Values("f_dc_0", "opacity", "scale_0", "rot_0"),
                         [](const testing::TestParamInfo<const char*>& lacking) {
                             return std::string(lacking.param);
                         });

TEST_F(Results, OtherPropertiesAreNotRequired) {
    PlyFile ply = oneSplat();
    ply.leftOut = {"x", "nx", "f_dc_1", "scale_1", "rot_3"};
    ply.write(input);
    convertToTheEnd();
}

TEST_F(Results, AnEmptyInputGivesMinusOne) {
    support::writeFile(input, "");
    expectRefused(-1);
}

TEST_F(Results, TheCheckStopsAtEndHeader) {
    PlyFile ply = oneSplat();
    ply.leftOut = {"rot_0"};
    support::writeFile(input, ply.header() + "property float rot_0\n");
    expectRefused(-1);
}

TEST_F(Results, TheCheckComesBeforeTheNumbers) {
    PlyFile ply = oneSplat();
    ply.leftOut = {"opacity"};
    ply.comments = {"comment epsg none"};
    ply.write(input);
    expectRefused(-1);
}

TEST_F(Results, AnInputThatCannotBeOpenedGivesMinusOneAndSaysSo) {
    oneSplat().write(input);
    makeOldOutput();
    Host host(scratch.folder());
#if defined(_WIN32)
    host.step("hold", support::pathBytes(input));
#else
    host.step("free-files", "0");
#endif
    const HostReport report = host.convert(input, output).run();
    ASSERT_EQ(report.childFailure, "");
    EXPECT_EQ(report.calls.at(0).result, -1);
    EXPECT_EQ(report.process.output, "cannot open file\n");
    expectOldOutputUntouched();
}

TEST_F(Results, AFolderAsInputGivesMinusOne) {
    fs::create_directories(input);
    makeOldOutput();
    const HostReport report = convert();
    EXPECT_EQ(report.calls.at(0).result, -1);
    expectOldOutputUntouched();
}

TEST_F(Results, AConversionWritesItsFilesAndTwoEmptyLines) {
    oneSplat().write(input);
    const HostReport report = convertToTheEnd();
    EXPECT_EQ(support::filesUnder(output), filesWithoutCoefficients);
    EXPECT_EQ(report.process.output, emptyLines(2));
    EXPECT_EQ(report.process.errors, "");
    EXPECT_EQ(support::readFile(output / "data.bin").size(), 32u);
    EXPECT_EQ(support::readFile(output / "index.bin").size(), 20u);
}

TEST_F(Results, CoefficientsGiveOneFileMore) {
    oneSplat(true).write(input);
    const HostReport report = convertToTheEnd();
    EXPECT_EQ(support::filesUnder(output), filesWithCoefficients);
    EXPECT_EQ(report.process.output, emptyLines(2));
    EXPECT_EQ(support::readFile(output / "shcoef.bin").size(), 64u);
}

TEST_F(Results, TheOldFolderIsEmptiedWithEverythingInIt) {
    oneSplat().write(input);
    makeOldOutput();
    support::writeFile(output / "shcoef.bin", "left over");
    convertToTheEnd();
    EXPECT_EQ(support::filesUnder(output), filesWithoutCoefficients);
}

TEST_F(Results, AFileInTheFoldersPlaceIsRemoved) {
    oneSplat().write(input);
    support::writeFile(output, "a file");
    convertToTheEnd();
    EXPECT_EQ(support::filesUnder(output), filesWithoutCoefficients);
}

TEST_F(Results, MissingParentsAreCreated) {
    oneSplat().write(input);
    output = scratch / "a" / "b" / "c";
    convertToTheEnd();
    EXPECT_EQ(support::filesUnder(output), filesWithoutCoefficients);
}

TEST_F(Results, ASeparatorAtTheEndOfTheFolderIsDoubled) {
    oneSplat().write(input);
    const std::string folder = support::pathBytes(output) + "/";
    const HostReport report = Host(scratch.folder()).convert(support::pathBytes(input), folder).run();
    expectDone(report);
    EXPECT_EQ(support::filesUnder(output), filesWithoutCoefficients);
    EXPECT_THAT(log(), testing::HasSubstr("out input file path:" + folder + "\n"));
}

TEST_F(Results, RelativePathsStartAtTheWorkingFolder) {
    oneSplat().write(input);
    const HostReport report = Host(scratch.folder())
                                  .step("folder", support::pathBytes(scratch.folder()))
                                  .convert(std::string("scene.ply"), std::string("out"))
                                  .run();
    expectDone(report);
    EXPECT_EQ(support::filesUnder(output), filesWithoutCoefficients);
    EXPECT_THAT(log(), testing::HasSubstr("input data file:scene.ply\n"));
}

TEST_F(Results, PathsMayHoldBlanksAndLettersOutsideAscii) {
    input = scratch / fs::path(u8"Straße mit Bäumen.ply");
    output = scratch / fs::path(u8"fertig über alles");
    oneSplat().write(input);
    convertToTheEnd();
    EXPECT_EQ(support::filesUnder(output), filesWithoutCoefficients);
    EXPECT_THAT(log(), testing::HasSubstr("input data file:" + support::pathBytes(input) + "\n"));
}

TEST_F(Results, AnInputInsideTheOutputFolderIsLost) {
    fs::create_directories(output);
    input = output / "scene.ply";
    oneSplat().write(input);
    const HostReport report = convertToProcessEnd(exitMinusOne);
    EXPECT_EQ(report.process.output,
              "ERROR(chunker:61): file cannot open \nERROR(indexer:708): cannot GET lod0 data\n");
    EXPECT_EQ(support::filesUnder(output), (std::set<std::string>{"data.bin", "log.txt"}));
}

TEST_F(Results, ConversionsOneAfterTheOtherDoNotDisturbEachOther) {
    PlyFile first = support::randomFile(1, 500, true);
    first.comments = {"comment source first", "comment epsg 4326", "comment minx 1", "comment maxx 2"};
    first.write(input);
    const fs::path secondInput = scratch / "second.ply";
    support::randomFile(2, 300, false).write(secondInput);
    const HostReport report = Host(scratch.folder())
                                  .convert(input, output)
                                  .convert(scratch / "nothing", output)
                                  .convert(secondInput, scratch / "both")
                                  .run();
    ASSERT_EQ(report.calls.size(), 3u);
    EXPECT_EQ(report.calls[0].result, 0);
    EXPECT_EQ(report.calls[1].result, -2);
    EXPECT_EQ(report.calls[2].result, 0);
    expectDone(Host(scratch.folder()).convert(secondInput, scratch / "alone").run());
    const support::DatasetFiles both = support::readDataset(scratch / "both");
    const support::DatasetFiles alone = support::readDataset(scratch / "alone");
    EXPECT_EQ(both.data, alone.data);
    EXPECT_EQ(both.index, alone.index);
    EXPECT_EQ(support::withoutGuid(both.meta), support::withoutGuid(alone.meta));
}

} // namespace
} // namespace blackbox
