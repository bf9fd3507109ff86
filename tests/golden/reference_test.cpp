// Compares the library's bytes with those of the reference converter.

#include "tests/reference/converter.h"
#include "tests/support/conversion.h"
#include "tests/support/files.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

namespace {

using support::PlyFile;
using support::Random;

// The first record that differs, byte by byte.
testing::AssertionResult sameRecords(const std::string& found, const std::string& expected,
                                     std::size_t recordSize) {
    if (found.size() != expected.size()) {
        return testing::AssertionFailure() << found.size() << " bytes instead of " << expected.size();
    }
    const auto [at, other] = std::mismatch(found.begin(), found.end(), expected.begin());
    if (at == found.end()) {
        return testing::AssertionSuccess();
    }
    const std::size_t record = static_cast<std::size_t>(at - found.begin()) / recordSize;
    testing::AssertionResult failure = testing::AssertionFailure();
    failure << "record " << record << ", byte " << static_cast<std::size_t>(at - found.begin()) % recordSize
            << ":\n";
    for (const std::string* const bytes : {&found, &expected}) {
        failure << (bytes == &found ? "found   " : "expected");
        for (std::size_t i = 0; i < recordSize; ++i) {
            char hex[4];
            std::snprintf(
                hex, sizeof hex, " %02x",
                static_cast<unsigned>(static_cast<unsigned char>((*bytes)[record * recordSize + i])));
            failure << hex;
        }
        failure << '\n';
    }
    return failure;
}

class Reference : public testing::Test {
protected:
    support::Scratch scratch;

    void expectSameBytes(const std::string& file) {
        support::writeFile(scratch / "scene.ply", file);
        const support::HostReport report =
            support::convertOnce(scratch.folder(), scratch / "scene.ply", scratch / "out");
        ASSERT_EQ(report.calls.size(), 1u);
        ASSERT_EQ(report.calls.front().result, 0) << report.calls.front().what << report.process.errors;
        const support::DatasetFiles found = support::readDataset(scratch / "out");
        const reference::Dataset expected = reference::convert(file);
        EXPECT_TRUE(sameRecords(found.data, expected.data, 32));
        EXPECT_TRUE(sameRecords(found.coefficients, expected.coefficients, 64));
        EXPECT_TRUE(sameRecords(found.index, expected.index, 20));
        EXPECT_EQ(support::withoutGuid(found.meta), expected.meta);
        EXPECT_EQ(report.process.output, std::string(expected.index.size() / 20 * 2, '\n'));
    }
};

TEST_F(Reference, OneSplat) {
    for (const bool coefficients : {false, true}) {
        expectSameBytes(support::randomFile(1, 1, coefficients).bytes());
    }
}

// Counts around the sizes of vector loops.
TEST_F(Reference, FewSplats) {
    for (const bool coefficients : {false, true}) {
        for (const std::size_t count :
             {2u, 3u, 5u, 7u, 8u, 9u, 15u, 16u, 17u, 31u, 33u, 63u, 65u, 1023u, 1024u, 1025u, 2047u, 2049u}) {
            SCOPED_TRACE(count);
            expectSameBytes(support::randomFile(count, count, coefficients).bytes());
        }
    }
}

TEST_F(Reference, OneCellWithCoefficients) {
    for (const std::uint64_t seed : {1u, 2u, 3u}) {
        expectSameBytes(support::randomFile(seed, 30'000, true).bytes());
    }
}

TEST_F(Reference, OneCellWithoutCoefficients) {
    for (const std::uint64_t seed : {4u, 5u, 6u}) {
        expectSameBytes(support::randomFile(seed, 100'000, false).bytes());
    }
}

TEST_F(Reference, EveryComment) {
    PlyFile ply = support::randomFile(7, 100, true);
    ply.comments = {"comment source scan-7",
                    "comment dataType mesh",
                    "comment epsg 32632",
                    "comment offsetx 500137.02256",
                    "comment offsety 5414437.5482",
                    "comment offsetz 312.7377",
                    "comment shiftx -0.1",
                    "comment shifty 1e-7",
                    "comment shiftz 1e20",
                    "comment scalex 0.001",
                    "comment scaley 1.0000001",
                    "comment scalez 3",
                    "comment minx -24.1",
                    "comment miny -6.3",
                    "comment minz -24",
                    "comment maxx 24.7",
                    "comment maxy 8.9",
                    "comment maxz 24"};
    expectSameBytes(ply.bytes());
}

// Exponentials over their whole range, with results that are subnormal, zero or infinite.
TEST_F(Reference, EveryMagnitudeOfScaleAndOpacity) {
    PlyFile ply;
    for (int i = -9000; i <= 9000; ++i) {
        const float value = static_cast<float>(i) * 0.0123f;
        ply.add({.opacity = value, .scale = {value, value * 0.9f, -value}});
    }
    expectSameBytes(ply.bytes());
}

TEST_F(Reference, AwkwardValues) {
    for (const bool coefficients : {false, true}) {
        for (const std::uint64_t seed : {1u, 2u, 3u}) {
            PlyFile ply;
            ply.coefficients = coefficients;
            Random random(seed);
            for (int i = 0; i < 20'000; ++i) {
                ply.add(support::awkwardSplat(random));
            }
            expectSameBytes(ply.bytes());
        }
    }
}

// One attribute at a time is awkward, so that the others have ranges of finite extent.
TEST_F(Reference, OneAwkwardAttribute) {
    for (std::size_t attribute = 0; attribute < 7; ++attribute) {
        SCOPED_TRACE(attribute);
        PlyFile ply;
        ply.coefficients = true;
        Random random(attribute);
        for (int i = 0; i < 2000; ++i) {
            support::Splat splat = support::randomSplat(random, 10.0f, 10.0f);
            const support::Splat awkward = support::awkwardSplat(random);
            switch (attribute) {
            case 0:
                splat.position = awkward.position;
                break;
            case 1:
                splat.normal = awkward.normal;
                break;
            case 2:
                splat.dc = awkward.dc;
                break;
            case 3:
                splat.rest = awkward.rest;
                break;
            case 4:
                splat.opacity = awkward.opacity;
                break;
            case 5:
                splat.scale = awkward.scale;
                break;
            default:
                splat.rotation = awkward.rotation;
                break;
            }
            ply.add(splat);
        }
        expectSameBytes(ply.bytes());
    }
}

// Of equal bounds the first one stays, also of zeros with different signs.
TEST_F(Reference, ZerosOfBothSigns) {
    for (const std::uint64_t seed : {1u, 2u, 3u, 4u}) {
        PlyFile ply;
        ply.coefficients = true;
        Random random(seed);
        for (int i = 0; i < 50; ++i) {
            support::Splat splat;
            const auto zero = [&random] { return random.next() % 2 == 0 ? 0.0f : -0.0f; };
            std::generate(splat.normal.begin(), splat.normal.end(), zero);
            std::generate(splat.rest.begin(), splat.rest.end(), zero);
            std::generate(splat.position.begin(), splat.position.end(), zero);
            ply.add(splat);
        }
        expectSameBytes(ply.bytes());
    }
}

// Every range is a point.
TEST_F(Reference, EqualSplats) {
    for (const bool coefficients : {false, true}) {
        PlyFile ply;
        ply.coefficients = coefficients;
        Random random(3);
        const support::Splat splat = support::randomSplat(random, 10.0f, 10.0f);
        for (int i = 0; i < 100; ++i) {
            ply.add(splat);
        }
        expectSameBytes(ply.bytes());
    }
}

TEST_F(Reference, CutFiles) {
    for (const bool coefficients : {false, true}) {
        const PlyFile ply = support::randomFile(12, 3000, coefficients);
        const std::string whole = ply.bytes();
        const std::size_t header = ply.header().size();
        for (const std::size_t kept :
             {std::size_t{0}, std::size_t{1}, std::size_t{100'003}, whole.size() - header - 1}) {
            SCOPED_TRACE(kept);
            expectSameBytes(whole.substr(0, header + kept));
        }
    }
}

TEST_F(Reference, GridWithoutCoefficients) {
    expectSameBytes(support::randomFile(21, 1'000'001, false, 250.0f, 80.0f).bytes());
}

TEST_F(Reference, GridWithCoefficients) {
    expectSameBytes(support::randomFile(22, 1'000'037, true, 90.0f, 40.0f).bytes());
}

// The stated box is smaller than the scene, and some positions are NaN.
TEST_F(Reference, GridWithSplatsOutside) {
    PlyFile ply = support::randomFile(23, 1'100'000, false, 400.0f, 300.0f);
    ply.comments = {"comment minx -150.5", "comment miny -100.25", "comment minz 0",
                    "comment maxx 120",    "comment maxy 111.125", "comment maxz 50"};
    Random random(24);
    for (std::size_t i = 0; i < ply.records.size(); i += 1000 * ply.recordFloats()) {
        ply.records[i + random.next() % 2] = support::awkwardFloat(random);
    }
    expectSameBytes(ply.bytes());
}

} // namespace
