// Hosts that set up their process in ways of their own: the bytes stay the same, and so does the host.

#include "tests/blackbox/blackbox.h"

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

    // Convert in an ordinary host and in this one; everything but the paths and the guid is the same.
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
    // A locale of our own, so that none needs to be installed.
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

} // namespace
} // namespace blackbox
