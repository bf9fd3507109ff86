// Hosts with unusual process settings. They change no byte of the dataset, and the library changes none of
// them.

#include "tests/blackbox/blackbox.h"

#include <algorithm>
#include <cerrno>
#include <csignal>

namespace blackbox {
namespace {

using support::DatasetFiles;
using support::Host;
using support::HostReport;
using support::PlyFile;

void expectSameDataset(const DatasetFiles& a, const DatasetFiles& b) {
    EXPECT_TRUE(a.data == b.data);
    EXPECT_TRUE(a.coefficients == b.coefficients);
    EXPECT_TRUE(a.index == b.index);
    EXPECT_EQ(support::withoutGuid(a.meta), support::withoutGuid(b.meta));
}

class Hosts : public BlackBox {
protected:
    // A scene with subnormals among its values and numbers that need every digit.
    static PlyFile scene() {
        PlyFile ply = support::randomFile(7, 2000, true);
        ply.comments = {"comment offsetx 1234567.891", "comment scalex 0.1", "comment shifty -1234.5678",
                        "comment epsg 1234567"};
        support::Random random(8);
        for (int i = 0; i < 500; ++i) {
            ply.add(support::awkwardSplat(random));
            support::Splat tiny = support::randomSplat(random, 1e-38f, 1e-38f);
            tiny.normal = {1e-39f, 2e-40f, -3e-41f};
            tiny.scale = {-90.0f, -95.0f, -100.0f}; // exponentials below the normal range
            tiny.rotation = {1e-20f, 2e-20f, -1e-21f, 3e-22f};
            ply.add(tiny);
        }
        return ply;
    }

    // Converts in an ordinary host and in this one. Everything except paths and guid must be equal.
    void expectSameAsOrdinary(Host& host) {
        scene().write(input);
        const fs::path ordinary = scratch / "ordinary";
        expectDone(Host(scratch.folder()).convert(input, ordinary).run());
        const HostReport report = host.convert(input, output).run();
        expectDone(report);
        EXPECT_TRUE(report.calls.front().floatModeKept);
        EXPECT_TRUE(report.calls.front().localeKept);
        EXPECT_EQ(report.process.output, emptyLines(2));
        const DatasetFiles expected = support::readDataset(ordinary);
        const DatasetFiles found = support::readDataset(output);
        expectSameDataset(expected, found);
        EXPECT_EQ(std::count(found.log.begin(), found.log.end(), '\n'),
                  std::count(expected.log.begin(), expected.log.end(), '\n'));
    }
};

TEST_F(Hosts, ADecimalCommaInTheLocaleChangesNothing) {
#if defined(_WIN32)
    Host host(scratch.folder());
    host.step("locale", "German_Germany.1252");
    expectSameAsOrdinary(host);
#else
    // Compiles a locale, so that none needs to be installed.
    const fs::path source = scratch / "comma.src";
    support::writeFile(source, "LC_NUMERIC\ndecimal_point \"<U002C>\"\nthousands_sep \"<U002E>\"\n"
                               "grouping 3;3\nEND LC_NUMERIC\n");
    support::runProcess({{"localedef", "-c", "-i", source.string(), (scratch / "comma").string()},
                         {},
                         scratch.folder()}); // its status tells of warnings about the other categories
    ASSERT_TRUE(fs::exists(scratch / "comma" / "LC_NUMERIC")) << "localedef made no locale";
    Host host(scratch.folder());
    host.environment("LOCPATH", scratch.folder().string()).step("locale", "comma");
    expectSameAsOrdinary(host);
#endif
}

TEST_F(Hosts, GroupedDigitsInTheGlobalLocaleChangeNothing) {
    Host host(scratch.folder());
    host.step("global-grouping");
    expectSameAsOrdinary(host);
}

TEST_F(Hosts, RoundingUpwardChangesNothing) {
    Host host(scratch.folder());
    host.step("rounding", "upward");
    expectSameAsOrdinary(host);
}

TEST_F(Hosts, RoundingDownwardChangesNothing) {
    Host host(scratch.folder());
    host.step("rounding", "downward");
    expectSameAsOrdinary(host);
}

TEST_F(Hosts, FlushingSubnormalsChangesNothing) {
    Host host(scratch.folder());
    host.step("flush-subnormals");
    expectSameAsOrdinary(host);
}

TEST_F(Hosts, TheFloatModeIsPutBackAfterAnException) {
    PlyFile bad = oneSplat();
    bad.comments = {"comment epsg none"};
    bad.write(input);
    const HostReport report =
        Host(scratch.folder()).step("rounding", "zero").step("flush-subnormals").convert(input, output).run();
    ASSERT_EQ(report.childFailure, "");
    EXPECT_EQ(report.calls.at(0).what, "invalid stoi argument");
    EXPECT_TRUE(report.calls.at(0).floatModeKept);
}

TEST_F(Hosts, TheFloatModeIsPutBackAfterARefusal) {
    const HostReport report = Host(scratch.folder()).step("rounding", "upward").convert(input, output).run();
    ASSERT_EQ(report.childFailure, "");
    EXPECT_EQ(report.calls.at(0).result, -2);
    EXPECT_TRUE(report.calls.at(0).floatModeKept);
}

TEST_F(Hosts, AwkwardValuesGiveTheSameBytesInEveryRun) {
    for (const bool coefficients : {false, true}) {
        PlyFile ply;
        ply.coefficients = coefficients;
        support::Random random(11);
        for (int i = 0; i < 20'000; ++i) {
            ply.add(support::awkwardSplat(random));
        }
        ply.write(input);
        convertToTheEnd();
        const DatasetFiles first = support::readDataset(output);
        EXPECT_EQ(first.data.size(), 20'000u * 32);
        for (int run = 0; run < 3; ++run) {
            convertToTheEnd();
            expectSameDataset(first, support::readDataset(output));
        }
    }
}

TEST_F(Hosts, TwoConversionsDifferInTheirGuid) {
    oneSplat().write(input);
    const std::string first = metaAfterConversion();
    const std::string second = metaAfterConversion();
    EXPECT_NE(support::metaValue(first, "guid"), support::metaValue(second, "guid"));
    EXPECT_EQ(support::withoutGuid(first), support::withoutGuid(second));
}

TEST_F(Hosts, AThreadWithASmallStackChangesNothing) {
#if !defined(__linux__)
    GTEST_SKIP() << "the size of a stack is chosen on Linux alone";
#endif
    Host host(scratch.folder());
    host.step("small-stack");
    expectSameAsOrdinary(host);
}

#if defined(__linux__)

TEST_F(Hosts, AnEmptyEnvironmentChangesNothing) {
    Host host(scratch.folder());
    host.step("without-environment");
    expectSameAsOrdinary(host);
}

TEST_F(Hosts, AForkBeforeTheCallChangesNothing) {
    Host host(scratch.folder());
    host.step("fork");
    expectSameAsOrdinary(host);
}

// The child process needs no thread and no lock of an earlier conversion.
TEST_F(Hosts, AForkBetweenTwoCallsChangesNothing) {
    scene().write(input);
    const HostReport report =
        Host(scratch.folder()).convert(input, scratch / "first").step("fork").convert(input, output).run();
    expectDone(report, 2);
    expectSameDataset(support::readDataset(scratch / "first"), support::readDataset(output));
}

TEST_F(Hosts, LoadingAndUnloadingAHundredTimesChangesNothing) {
    scene().write(input);
    Host host(scratch.folder());
    constexpr std::size_t rounds = 10;
    for (std::size_t round = 0; round < rounds; ++round) {
        host.convert(input, scratch / ("out" + std::to_string(round))).step("reload", "10");
    }
    expectDone(host.run(), rounds);
    const DatasetFiles first = support::readDataset(scratch / "out0");
    for (std::size_t round = 1; round < rounds; ++round) {
        expectSameDataset(first, support::readDataset(scratch / ("out" + std::to_string(round))));
    }
}

// If a host has closed its standard streams, no file of the dataset may get their descriptors: the empty
// lines of standard output would be written into it.
TEST_F(Hosts, AClosedStandardOutputPutsNothingIntoTheFiles) {
    scene().write(input);
    const fs::path ordinary = scratch / "ordinary";
    expectDone(Host(scratch.folder()).convert(input, ordinary).run());
    const DatasetFiles expected = support::readDataset(ordinary);
    for (const char* also : {"1", "0", "2"}) {
        const HostReport report =
            Host(scratch.folder()).step("close", "1").step("close", also).convert(input, output).run();
        expectDone(report);
        EXPECT_EQ(report.process.output, "");
        const DatasetFiles found = support::readDataset(output);
        expectSameDataset(expected, found);
        EXPECT_EQ(std::count(found.log.begin(), found.log.end(), '\n'),
                  std::count(expected.log.begin(), expected.log.end(), '\n'));
    }
}

// The first empty lines are printed before the first record, so a host that does not ignore the signal ends
// there.
TEST_F(Hosts, ABrokenPipeEndsAHostByItsSignal) {
    scene().write(input);
    const HostReport report = Host(scratch.folder()).step("broken-pipe").convert(input, output).run();
    ASSERT_EQ(report.childFailure, "");
    EXPECT_FALSE(report.process.exited);
    EXPECT_EQ(report.process.status, SIGPIPE);
    EXPECT_EQ(fs::file_size(output / "data.bin"), 0u);
}

TEST_F(Hosts, ABrokenPipeWhoseSignalIsIgnoredChangesNothing) {
    scene().write(input);
    const fs::path ordinary = scratch / "ordinary";
    expectDone(Host(scratch.folder()).convert(input, ordinary).run());
    expectDone(Host(scratch.folder())
                   .step("ignore-signal", std::to_string(SIGPIPE))
                   .step("broken-pipe")
                   .convert(input, output)
                   .run());
    expectSameDataset(support::readDataset(ordinary), support::readDataset(output));
}

TEST_F(Hosts, ALostCurrentFolderDoesNotMatterToAbsolutePaths) {
    Host host(scratch.folder());
    host.step("lost-folder", support::pathBytes(scratch / "lost"));
    expectSameAsOrdinary(host);
}

TEST_F(Hosts, InALostCurrentFolderARelativeInputIsMissing) {
    oneSplat().write(input);
    const HostReport report = Host(scratch.folder())
                                  .step("lost-folder", support::pathBytes(scratch / "lost"))
                                  .convert("scene.ply", support::pathBytes(output))
                                  .run();
    ASSERT_EQ(report.childFailure, "");
    EXPECT_EQ(report.calls.at(0).result, -2);
    EXPECT_FALSE(fs::exists(output));
}

TEST_F(Hosts, InALostCurrentFolderARelativeOutputCannotBeCreated) {
    oneSplat().write(input);
    const HostReport report = Host(scratch.folder())
                                  .step("lost-folder", support::pathBytes(scratch / "lost"))
                                  .convert(support::pathBytes(input), "out")
                                  .run();
    ASSERT_EQ(report.childFailure, "");
    EXPECT_EQ(report.calls.at(0).exception, "filesystem_error");
    EXPECT_THAT(report.calls.at(0).what, testing::HasSubstr("create_directories"));
    EXPECT_EQ(report.calls.at(0).path1, "out");
    EXPECT_EQ(report.calls.at(0).code, ENOENT);
}

class LongPaths : public Hosts {
protected:
    // A folder below the scratch folder whose path has `length` bytes.
    fs::path folderOfLength(std::size_t length) const {
        std::string path = support::pathBytes(scratch.folder());
        while (length - path.size() > 250) {
            path += '/' + std::string(200, 'd');
        }
        return path + '/' + std::string(length - path.size() - 1, 'e');
    }
};

// The longest path that the system takes has 4,095 bytes; the longest file name of a dataset has 23 with its
// separator.
TEST_F(LongPaths, AnOutputOf4072BytesIsConvertedTo) {
    output = folderOfLength(4072);
    Host host(scratch.folder());
    expectSameAsOrdinary(host);
}

// With one more byte the meta document's path is too long.
TEST_F(LongPaths, AnOutputOf4073BytesLacksItsMetaDocument) {
    oneSplat().write(input);
    output = folderOfLength(4073);
    const HostReport report = convertToProcessEnd(exitMinusOne);
    EXPECT_EQ(report.process.output,
              emptyLines(2) + "ERROR(indexer:519): cannot open meta file,write file fail\n");
    EXPECT_TRUE(fs::exists(output / "index.bin"));
}

TEST_F(LongPaths, AnOutputThatTheSystemDoesNotTakeThrowsExists) {
    oneSplat().write(input);
    output = folderOfLength(4096);
    const HostReport report = convert();
    EXPECT_EQ(report.calls.at(0).exception, "filesystem_error");
    EXPECT_THAT(report.calls.at(0).what, testing::HasSubstr("exists"));
    EXPECT_EQ(report.calls.at(0).code, ENAMETOOLONG);
}

#endif

} // namespace
} // namespace blackbox
