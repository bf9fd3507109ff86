// The run log, line by line.

#include "tests/blackbox/blackbox.h"

namespace blackbox {
namespace {

using support::Host;
using support::HostReport;
using support::PlyFile;

class Log : public BlackBox {
protected:
    // The log of a finished conversion; the two line numbers around closing the data files depend on whether
    // coefficients are written.
    std::string expectedLog(const fs::path& from, int finished, int closed) const {
        return "INFO(convert:74): input data file:" + support::pathBytes(from) +
               "\n"
               "INFO(convert:75): out input file path:" +
               support::pathBytes(output) +
               "\n"
               "INFO(chunker:37): Start chunking... \n"
               "INFO(chunker:342): chunking finished . \n"
               "INFO(indexer:29): Start Index ,need a little time ... \n"
               "INFO(indexer:38): Index finished ,Start create Data... \n"
               "INFO(indexer:" +
               std::to_string(finished) +
               "): Data create finished , free file stream... \n"
               "INFO(indexer:" +
               std::to_string(closed) +
               "): Data create finished , free file stream success.\n"
               "INFO(indexer:40): Index finished ,Start create Index... \n"
               "INFO(indexer:42): Index finished ,Start create meta data \n"
               "INFO(indexer:45): All tasks finished .\n";
    }
};

TEST_F(Log, HoldsTheseLinesWithoutCoefficients) {
    oneSplat().write(input);
    convertToTheEnd();
    EXPECT_EQ(log(), expectedLog(input, 827, 832));
}

TEST_F(Log, HoldsTheseLinesWithCoefficients) {
    oneSplat(true).write(input);
    convertToTheEnd();
    EXPECT_EQ(log(), expectedLog(input, 694, 701));
}

TEST_F(Log, LinesEndAsTheSystemsTextFilesDo) {
    oneSplat().write(input);
    convertToTheEnd();
#if defined(_WIN32)
    const std::string lineEnd = "\r\n";
#else
    const std::string lineEnd = "\n";
#endif
    for (const char* name : {"log.txt", "converted_from_ply.ytr"}) {
        const std::string bytes = support::readFile(output / name);
        std::size_t lines = 0;
        for (std::size_t at = bytes.find('\n'); at != bytes.npos; at = bytes.find('\n', at + 1), ++lines) {
            EXPECT_EQ(bytes.substr(at + 1 - lineEnd.size(), lineEnd.size()), lineEnd) << name;
            EXPECT_NE(bytes[at - lineEnd.size()], '\r') << name;
        }
        EXPECT_GT(lines, 10u) << name;
        EXPECT_THAT(bytes, testing::EndsWith(lineEnd)) << name;
    }
}

TEST_F(Log, ASecondConversionIntoTheFolderKeepsNothingOfTheFirst) {
    oneSplat(true).write(input);
    const fs::path secondInput = scratch / "second.ply";
    oneSplat().write(secondInput);
    expectDone(Host(scratch.folder()).convert(input, output).convert(secondInput, output).run(), 2);
    EXPECT_EQ(log(), expectedLog(secondInput, 827, 832));
}

TEST_F(Log, PathsAreWrittenAsTheyWerePassed) {
    oneSplat().write(input);
    const std::string odd = support::pathBytes(scratch.folder()) + "/./scene.ply";
    expectDone(Host(scratch.folder()).convert(odd, support::pathBytes(output)).run());
    EXPECT_THAT(log(), testing::StartsWith("INFO(convert:74): input data file:" + odd + "\n"));
}

// After an exception the log stays open; the next conversion opens its own.
TEST_F(Log, IsWholeAfterAConversionThatThrew) {
    PlyFile bad = oneSplat();
    bad.comments = {"comment epsg none"};
    bad.write(scratch / "bad.ply");
    oneSplat().write(input);
    const HostReport report =
        Host(scratch.folder()).convert(scratch / "bad.ply", output).convert(input, output).run();
    ASSERT_EQ(report.calls.size(), 2u);
    EXPECT_EQ(report.calls[0].what, "invalid stoi argument");
    EXPECT_EQ(report.calls[1].result, 0);
    EXPECT_EQ(log(), expectedLog(input, 827, 832));
}

TEST_F(Log, OfASceneWithoutSplatsEndsWithTheError) {
    PlyFile ply;
    ply.write(input);
    convertToProcessEnd(exitMinusOne);
    EXPECT_THAT(log(), testing::EndsWith("INFO(chunker:342): chunking finished . \n"
                                         "INFO(indexer:29): Start Index ,need a little time ... \n"
                                         "INFO(indexer:38): Index finished ,Start create Data... \n"
                                         "ERROR(indexer:708): cannot GET lod0 data\n"));
}

TEST_F(Log, OfALostInputHoldsTheErrorBetweenTheChunkersLines) {
    fs::create_directories(output);
    input = output / "scene.ply";
    oneSplat().write(input);
    convertToProcessEnd(exitMinusOne);
    EXPECT_THAT(log(), testing::HasSubstr("INFO(chunker:37): Start chunking... \n"
                                          "ERROR(chunker:61): file cannot open \n"
                                          "INFO(chunker:342): chunking finished . \n"));
}

} // namespace
} // namespace blackbox
