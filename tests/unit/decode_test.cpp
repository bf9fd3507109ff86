#include "src/chunker_decode.h"
#include "tests/reference/splats.h"
#include "tests/support/floats.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

using support::describe;
using support::Random;
using support::sameFloat;

using support::infinity;
using support::nan;

TEST(RecordLayout, IsThatOfTheFiles) {
    EXPECT_EQ(positionAt * 4, 0u);
    EXPECT_EQ(normalAt * 4, 12u);
    EXPECT_EQ(colourAt * 4, 24u);
    EXPECT_EQ(coefficientsAt * 4, 36u);
    EXPECT_EQ(recordLayout(true).floats * 4, 248u);
    EXPECT_EQ(recordLayout(true).opacity * 4, 216u);
    EXPECT_EQ(recordLayout(true).scale * 4, 220u);
    EXPECT_EQ(recordLayout(true).rotation * 4, 232u);
    EXPECT_EQ(recordLayout(false).floats * 4, 68u);
    EXPECT_EQ(recordLayout(false).opacity * 4, 36u);
    EXPECT_EQ(recordLayout(false).scale * 4, 40u);
    EXPECT_EQ(recordLayout(false).rotation * 4, 52u);
}

TEST(DecodeColour, MapsTheZerothCoefficientAndClamps) {
    struct Row {
        float coefficient;
        float colour;
    };
    const Row rows[] = {{0.0f, 0.5f},
                        {-0.0f, 0.5f},
                        {1.0f, 0.2820948f + 0.5f},
                        {-1.0f, 0.5f - 0.2820948f},
                        {2.0f, 1.0f}, // 1.0641896, clamped
                        {-5.0f, 0.0f},
                        {infinity, 1.0f},
                        {-infinity, 0.0f},
                        {std::numeric_limits<float>::max(), 1.0f},
                        {std::numeric_limits<float>::denorm_min(), 0.5f}};
    for (const Row& row : rows) {
        EXPECT_EQ(decodeColour(row.coefficient), row.colour) << row.coefficient;
        EXPECT_FALSE(std::signbit(decodeColour(row.coefficient))) << row.coefficient;
    }
    EXPECT_TRUE(std::isnan(decodeColour(nan)));
    EXPECT_TRUE(std::isnan(decodeColour(-nan)));
}

TEST(DecodeOpacity, IsTheLogisticFunction) {
    EXPECT_EQ(decodeOpacity(0.0f), 0.5f);
    EXPECT_EQ(decodeOpacity(infinity), 1.0f);
    EXPECT_EQ(decodeOpacity(-infinity), 0.0f);
    EXPECT_EQ(decodeOpacity(200.0f), 1.0f);
    EXPECT_EQ(decodeOpacity(-200.0f), 0.0f);
    EXPECT_FALSE(std::signbit(decodeOpacity(-200.0f)));
    EXPECT_TRUE(std::isnan(decodeOpacity(nan)));
    for (float logit = -80.0f; logit < 80.0f; logit += 0.0625f) {
        const double expected = 1.0 / (1.0 + std::exp(-static_cast<double>(logit)));
        EXPECT_NEAR(decodeOpacity(logit), expected, expected * 2e-7) << logit;
    }
}

TEST(DecodeScale, IsTheExponentialThroughItsEighthRoot) {
    EXPECT_EQ(decodeScale(0.0f), 1.0f);
    EXPECT_EQ(decodeScale(-infinity), 0.0f);
    EXPECT_EQ(decodeScale(infinity), infinity);
    EXPECT_EQ(decodeScale(89.0f), infinity);
    EXPECT_EQ(decodeScale(-104.0f), 0.0f);
    EXPECT_TRUE(std::isnan(decodeScale(nan)));
    bool rootIsSeen = false;
    for (float logScale = -86.0f; logScale < 88.0f; logScale += 0.0625f) {
        const double expected = std::exp(static_cast<double>(logScale));
        const float scale = decodeScale(logScale);
        EXPECT_NEAR(scale, expected, expected * 2e-6) << logScale;
        rootIsSeen = rootIsSeen || scale != static_cast<float>(expected);
    }
    EXPECT_TRUE(rootIsSeen) << "the root-then-square sequence leaves its mark in the last places";
}

TEST(DecodeFunctions, FollowTheirFormulasBitForBit) {
    Random random(40);
    for (int i = 0; i < 300'000; ++i) {
        const float value = support::mixedFloat(random, -16.0f, 16.0f);
        ASSERT_TRUE(sameFloat(decodeColour(value), reference::colour(value))) << describe(value);
        ASSERT_TRUE(sameFloat(decodeOpacity(value), reference::opacity(value))) << describe(value);
        ASSERT_TRUE(sameFloat(decodeScale(value), reference::scale(value))) << describe(value);
    }
}

void expectPacked(const std::array<float, 4>& rotation, const std::array<float, 4>& packed) {
    const std::array<float, 4> actual = packRotation(rotation[0], rotation[1], rotation[2], rotation[3]);
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_TRUE(sameFloat(actual[i], packed[i]))
            << describe(actual[i]) << " instead of " << describe(packed[i]) << " at " << i << " for "
            << testing::PrintToString(rotation);
    }
}

TEST(PackRotation, UnitQuaternionsLeaveTheOthersAtTheMiddle) {
    const float third = 1.0f / 3.0f;
    const float twoThirds = 2.0f / 3.0f;
    for (const float length : {1.0f, 0.25f, 8.0f, -1.0f, -0.5f}) {
        expectPacked({length, 0, 0, 0}, {0.5f, 0.5f, 0.5f, 1.0f});
        expectPacked({0, length, 0, 0}, {0.5f, 0.5f, 0.5f, 0.0f});
        expectPacked({0, 0, length, 0}, {0.5f, 0.5f, 0.5f, third});
        expectPacked({0, 0, 0, length}, {0.5f, 0.5f, 0.5f, twoThirds});
    }
}

TEST(PackRotation, TheThreeOthersKeepTheirOrder) {
    // (w, x, y, z): each of the rest has a value of its own. The norm of (8, 4, 1, 0) is 9.
    const auto mapped = [](float component) { return component * (1.0f / 9.0f) * 1.4142135f * 0.5f + 0.5f; };
    expectPacked({8, 4, 1, 0}, {mapped(4), mapped(1), mapped(0), 1.0f});
    expectPacked({4, 8, 1, 0}, {mapped(1), mapped(0), mapped(4), 0.0f});
    expectPacked({4, 1, 8, 0}, {mapped(1), mapped(0), mapped(4), 1.0f / 3.0f});
    expectPacked({4, 1, 0, 8}, {mapped(1), mapped(0), mapped(4), 2.0f / 3.0f});
}

TEST(PackRotation, ANegativeLargestTurnsTheOthersRound) {
    for (std::size_t largest = 0; largest < 4; ++largest) {
        std::array<float, 4> rotation{1, -2, 3, 4};
        rotation[largest] = 9;
        std::array<float, 4> opposite = rotation;
        for (float& component : opposite) {
            component = -component;
        }
        const auto packed = packRotation(rotation[0], rotation[1], rotation[2], rotation[3]);
        expectPacked(opposite, packed);
    }
}

// The order in which the components are compared is x, y, z, w.
TEST(PackRotation, ATieKeepsTheLowerIndex) {
    struct Row {
        std::array<float, 4> rotation;
        float index;
    };
    const Row rows[] = {{{1, 1, 1, 1}, 0.0f},        {{1, 0, 1, 1}, 1.0f / 3.0f},
                        {{1, 0, 0, 1}, 2.0f / 3.0f}, {{-1, 0.5f, 1, -1}, 1.0f / 3.0f},
                        {{1, -1, 0, 0}, 0.0f},       {{2, -2, 2, -2}, 0.0f}};
    for (const Row& row : rows) {
        EXPECT_EQ(packRotation(row.rotation[0], row.rotation[1], row.rotation[2], row.rotation[3])[3],
                  row.index)
            << testing::PrintToString(row.rotation);
    }
}

TEST(PackRotation, AZeroQuaternionGivesNan) {
    for (const float zero : {0.0f, -0.0f}) {
        const auto packed = packRotation(zero, zero, zero, zero);
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_TRUE(std::isnan(packed[i]));
        }
        EXPECT_EQ(packed[3], 0.0f); // no component is larger than the first
    }
}

// Unpacked in double precision, every quaternion is the given one up to its sign and length.
TEST(PackRotation, HoldsTheRotationOfRandomQuaternions) {
    Random random(41);
    for (int i = 0; i < 200'000; ++i) {
        std::array<float, 4> rotation{};
        double norm = 0.0;
        for (float& component : rotation) {
            component = random.between(-1.0f, 1.0f);
            norm += static_cast<double>(component) * component;
        }
        norm = std::sqrt(norm);
        if (norm < 1e-3) {
            continue;
        }
        const auto packed = packRotation(rotation[0], rotation[1], rotation[2], rotation[3]);
        const auto largest = static_cast<std::size_t>(std::lround(packed[3] * 3.0));
        std::array<double, 4> q{}; // x, y, z, w
        double rest = 1.0;
        for (std::size_t k = 0, in = 0; k < 4; ++k) {
            if (k != largest) {
                ASSERT_GE(packed[in], 0.0f);
                ASSERT_LE(packed[in], 1.0f);
                q[k] = (static_cast<double>(packed[in++]) - 0.5) * std::sqrt(2.0);
                rest -= q[k] * q[k];
            }
        }
        q[largest] = std::sqrt(std::max(rest, 0.0));
        const double sign = rotation[(largest + 1) % 4] < 0.0f ? -1.0 : 1.0;
        for (std::size_t k = 0; k < 4; ++k) {
            ASSERT_NEAR(q[k], sign * rotation[(k + 1) % 4] / norm, 1e-6) << testing::PrintToString(rotation);
        }
    }
}

TEST(PackRotation, FollowsItsFormulaBitForBit) {
    Random random(42);
    for (int i = 0; i < 300'000; ++i) {
        std::array<float, 4> rotation{};
        for (float& component : rotation) {
            component = i % 2 == 0 ? random.between(-1.0f, 1.0f) : support::mixedFloat(random, -2.0f, 2.0f);
        }
        expectPacked(rotation, reference::rotation(rotation[0], rotation[1], rotation[2], rotation[3]));
        if (HasFailure()) {
            return;
        }
    }
}

// Records with arbitrary attributes.
std::vector<float> anyRecords(Random& random, std::size_t count, bool hasCoefficients) {
    std::vector<float> records(count * recordLayout(hasCoefficients).floats);
    for (float& value : records) {
        value = support::mixedFloat(random, -3.0f, 3.0f);
    }
    return records;
}

void expectRange(const ValueRange& range, const reference::Bounds& expected, bool signOfZero,
                 const char* name) {
    EXPECT_EQ(range.min, expected.min) << name;
    EXPECT_EQ(range.max, expected.max) << name;
    if (signOfZero) {
        EXPECT_EQ(std::signbit(range.min), std::signbit(expected.min)) << name;
        EXPECT_EQ(std::signbit(range.max), std::signbit(expected.max)) << name;
    }
}

void expectRanges(const BlockRanges& ranges, const reference::Ranges& expected, bool signOfZero) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        expectRange(ranges.position[axis], expected.position[axis], signOfZero, "position");
        expectRange(ranges.normal[axis], expected.normal[axis], signOfZero, "normal");
        expectRange(ranges.colour[axis], expected.colour[axis], signOfZero, "colour");
        expectRange(ranges.coefficients[axis], expected.coefficients[axis], signOfZero, "shcoef");
        expectRange(ranges.scale[axis], expected.scale[axis], signOfZero, "scale");
    }
    expectRange(ranges.opacity, expected.opacity, signOfZero, "opacity");
}

void expectRecords(const std::vector<float>& actual, const std::vector<float>& expected,
                   std::size_t recordFloats) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        ASSERT_TRUE(sameFloat(actual[i], expected[i]))
            << "record " << i / recordFloats << ", float " << i % recordFloats << ": " << describe(actual[i])
            << " instead of " << describe(expected[i]);
    }
}

TEST(DecodeRecord, FollowsTheFormulasFieldByField) {
    Random random(43);
    for (const bool hasCoefficients : {false, true}) {
        for (int i = 0; i < 2000; ++i) {
            std::vector<float> record = anyRecords(random, 1, hasCoefficients);
            std::vector<float> expected = record;
            BlockRanges ranges;
            decodeRecord(record.data(), hasCoefficients, ranges);
            expectRanges(ranges, reference::decodeBlock(expected, hasCoefficients), true);
            expectRecords(record, expected, record.size());
            if (HasFailure()) {
                return;
            }
        }
    }
}

// Positions, normals and coefficients are copied bit for bit, whatever their values.
TEST(DecodeRecords, CopiedAttributesKeepTheirBits) {
    Random random(44);
    for (const bool hasCoefficients : {false, true}) {
        const RecordLayout& layout = recordLayout(hasCoefficients);
        const std::vector<float> before = anyRecords(random, 300, hasCoefficients);
        std::vector<float> records = before;
        BlockRanges ranges;
        decodeRecords(records.data(), 300, hasCoefficients, ranges);
        for (std::size_t i = 0; i < records.size(); ++i) {
            const std::size_t field = i % layout.floats;
            if (field < colourAt || (field >= coefficientsAt && field < layout.opacity)) {
                ASSERT_EQ(support::bitsOf(records[i]), support::bitsOf(before[i])) << field;
            }
        }
    }
}

TEST(DecodeRecords, AgreesWithTheFormulasForEveryCount) {
    Random random(45);
    std::vector<std::size_t> counts = {255, 256, 257, 300, 383, 385, 1024, 1025};
    for (std::size_t count = 0; count <= 140; ++count) {
        counts.push_back(count);
    }
    for (const bool hasCoefficients : {false, true}) {
        for (const std::size_t count : counts) {
            SCOPED_TRACE(std::to_string(count) + " records");
            std::vector<float> records = anyRecords(random, count, hasCoefficients);
            std::vector<float> expected = records;
            BlockRanges ranges;
            decodeRecords(records.data(), count, hasCoefficients, ranges);
            expectRanges(ranges, reference::decodeBlock(expected, hasCoefficients), false);
            expectRecords(records, expected, recordLayout(hasCoefficients).floats);
            if (HasFailure()) {
                return;
            }
        }
    }
}

TEST(DecodeRecords, AllKernelsGiveTheSameBytesAndBounds) {
    Random random(46);
    for (const bool hasCoefficients : {false, true}) {
        for (const std::size_t count : {1, 7, 127, 128, 129, 1000, 20'000}) {
            const std::vector<float> records = anyRecords(random, count, hasCoefficients);
            std::vector<float> expected = records;
            const reference::Ranges bounds = reference::decodeBlock(expected, hasCoefficients);
            for (const Kernels kernels : supportedKernels()) {
                SCOPED_TRACE(kernels == Kernels::avx2 ? "avx2" : "baseline");
                std::vector<float> decoded = records;
                BlockRanges ranges;
                decodeRecords(decoded.data(), count, hasCoefficients, ranges, kernels);
                expectRanges(ranges, bounds, false);
                expectRecords(decoded, expected, recordLayout(hasCoefficients).floats);
            }
        }
    }
}

TEST(DecodeRecords, WidensTheRangesItIsGiven) {
    std::vector<float> record(layoutWithoutCoefficients.floats, 0.0f);
    record[0] = 5.0f;
    BlockRanges ranges;
    ranges.position[0] = {.min = -1.0f, .max = 1.0f};
    ranges.position[1] = {.min = -1.0f, .max = 1.0f};
    decodeRecords(record.data(), 1, false, ranges);
    EXPECT_EQ(ranges.position[0].min, -1.0f);
    EXPECT_EQ(ranges.position[0].max, 5.0f);
    EXPECT_EQ(ranges.position[1].max, 1.0f);
    EXPECT_EQ(ranges.coefficients[0].min, infinity); // untouched without coefficients
    EXPECT_EQ(ranges.coefficients[0].max, -infinity);
}

TEST(DecodeRecords, EachChannelTakesItsFifteenCoefficients) {
    for (std::size_t coefficient = 0; coefficient < 45; ++coefficient) {
        std::vector<float> record(layoutWithCoefficients.floats, 0.0f);
        record[9 + coefficient] = 2.5f;
        BlockRanges ranges;
        decodeRecords(record.data(), 1, true, ranges);
        for (std::size_t channel = 0; channel < 3; ++channel) {
            EXPECT_EQ(ranges.coefficients[channel].max, channel == coefficient / 15 ? 2.5f : 0.0f)
                << coefficient;
        }
    }
}

// Records with many zeros of both signs. Zeros compare equal, so the first one visited must stay.
std::vector<float> recordsWithZeros(Random& random, std::size_t count, bool hasCoefficients) {
    const float sign = support::below(random, 2) == 0 ? 1.0f : -1.0f;
    const float values[] = {0.0f, -0.0f, nan, sign, sign * 2.0f};
    const std::uint64_t kinds = 3 + support::below(random, 3);
    std::vector<float> records(count * recordLayout(hasCoefficients).floats);
    for (float& value : records) {
        value = values[support::below(random, kinds)];
    }
    return records;
}

TEST(SettleZeroBounds, TheFirstZeroInVisitingOrderGivesTheSign) {
    Random random(46);
    for (int round = 0; round < 4000; ++round) {
        const bool hasCoefficients = round % 2 == 0;
        const std::size_t count = support::below(random, 12);
        std::vector<float> records = recordsWithZeros(random, count, hasCoefficients);
        std::vector<float> expected = records;
        BlockRanges ranges;
        decodeRecords(records.data(), count, hasCoefficients, ranges);
        settleZeroBounds(records.data(), count, hasCoefficients, ranges);
        expectRanges(ranges, reference::decodeBlock(expected, hasCoefficients), true);
        if (HasFailure()) {
            return;
        }
    }
}

TEST(SettleZeroBounds, LooksThroughTheWholeBlock) {
    std::vector<float> records(5000 * layoutWithoutCoefficients.floats, 1.0f);
    records[4321 * layoutWithoutCoefficients.floats + 1] = -0.0f;
    records[4322 * layoutWithoutCoefficients.floats + 1] = 0.0f;
    BlockRanges ranges;
    decodeRecords(records.data(), 5000, false, ranges);
    settleZeroBounds(records.data(), 5000, false, ranges);
    EXPECT_EQ(ranges.position[1].min, 0.0f);
    EXPECT_TRUE(std::signbit(ranges.position[1].min));
}

TEST(JoinRanges, TakesTheOuterBoundsOfEveryAttribute) {
    Random random(47);
    for (int round = 0; round < 200; ++round) {
        std::vector<float> records = anyRecords(random, 6, true);
        BlockRanges whole;
        BlockRanges first;
        BlockRanges second;
        std::vector<float> copy = records;
        decodeRecords(copy.data(), 6, true, whole);
        decodeRecords(records.data(), 2, true, first);
        decodeRecords(records.data() + 2 * layoutWithCoefficients.floats, 4, true, second);
        widen(first, second);
        settleZeroBounds(records.data(), 6, true, first);
        settleZeroBounds(records.data(), 6, true, whole);
        for (std::size_t axis = 0; axis < 3; ++axis) {
            EXPECT_EQ(first.position[axis].min, whole.position[axis].min);
            EXPECT_EQ(first.normal[axis].max, whole.normal[axis].max);
            EXPECT_EQ(first.colour[axis].min, whole.colour[axis].min);
            EXPECT_EQ(first.coefficients[axis].max, whole.coefficients[axis].max);
            EXPECT_EQ(first.scale[axis].min, whole.scale[axis].min);
        }
        EXPECT_EQ(first.opacity.min, whole.opacity.min);
        EXPECT_EQ(first.opacity.max, whole.opacity.max);
    }
}

BlockRanges numberedRanges() {
    BlockRanges ranges;
    float next = 1.0f;
    const auto set = [&next](ValueRange& range) {
        range = {.min = next, .max = next + 100.0f}, next += 1.0f;
    };
    for (std::size_t axis = 0; axis < 3; ++axis) {
        set(ranges.position[axis]);
        set(ranges.normal[axis]);
        set(ranges.colour[axis]);
        set(ranges.coefficients[axis]);
        set(ranges.scale[axis]);
    }
    set(ranges.opacity);
    return ranges;
}

void expectBounds(const AttributeRange& range, const Vector3& min, const Vector3& max) {
    EXPECT_EQ(range.min.x, min.x) << range.name;
    EXPECT_EQ(range.min.y, min.y) << range.name;
    EXPECT_EQ(range.min.z, min.z) << range.name;
    EXPECT_EQ(range.max.x, max.x) << range.name;
    EXPECT_EQ(range.max.y, max.y) << range.name;
    EXPECT_EQ(range.max.z, max.z) << range.name;
}

TEST(MergeRanges, PutsEachRangeInItsEntry) {
    AttributeBounding bounding;
    widen(bounding, numberedRanges(), true);
    expectBounds(bounding.position, {1, 6, 11}, {101, 106, 111});
    expectBounds(bounding.normal, {2, 7, 12}, {102, 107, 112});
    expectBounds(bounding.color, {3, 8, 13}, {103, 108, 113});
    expectBounds(bounding.shcoef, {4, 9, 14}, {104, 109, 114});
    expectBounds(bounding.scale, {5, 10, 15}, {105, 110, 115});
    constexpr double empty = std::numeric_limits<double>::infinity();
    expectBounds(bounding.opacity, {16, empty, empty}, {116, -empty, -empty}); // x alone
    EXPECT_EQ(bounding.position.name, "position");
}

TEST(MergeRanges, WidensWhatIsThere) {
    AttributeBounding bounding;
    bounding.normal.min = {0.0, 50.0, 0.0};
    bounding.normal.max = {500.0, 60.0, 500.0};
    widen(bounding, numberedRanges(), true);
    expectBounds(bounding.normal, {0, 7, 0}, {500, 107, 500});
}

TEST(MergeRanges, WithoutCoefficientsTheirRangeIsZeroToOne) {
    AttributeBounding bounding;
    bounding.shcoef.min = {-7.0, 5.0, 0.5};
    widen(bounding, numberedRanges(), false);
    expectBounds(bounding.shcoef, {0, 0, 0}, {1, 1, 1});
    expectBounds(bounding.scale, {5, 10, 15}, {105, 110, 115});
}

} // namespace

} // namespace Tavrin::GaussionSplat
