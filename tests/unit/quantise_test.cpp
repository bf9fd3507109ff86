#include "src/indexer_quantise.h"
#include "tests/reference/splats.h"
#include "tests/support/floats.h"
#include "tests/unit/indexer_support.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

namespace Tavrin::GaussionSplat {

namespace {

using support::infinity;
using support::nan;
using support::Random;

template <typename Value>
Value valueAt(const SplatsData& record, std::size_t offset) {
    Value value;
    std::memcpy(&value, reinterpret_cast<const char*>(&record) + offset, sizeof value);
    return value;
}

QuantiseRange rangeOf(double min, double max) {
    return {.min = min, .extent = max - min};
}

TEST(SplatsData, HasTheLayoutOfTheFiles) {
    static_assert(sizeof(SplatsData) == 288);
    static_assert(dataRecordSize == 32 && packedCoefficientsSize == 64 && rawCoefficientsSize == 192);
    static_assert(std::is_trivially_copyable_v<SplatsData>);
    std::vector<float> splat(layoutWithCoefficients.floats, 0.0f);
    splat[0] = 1.0f;
    splat[1] = 2.0f;
    splat[2] = 3.0f;
    for (const std::size_t at : {6, 7, 8, 54}) { // colour and opacity
        splat[at] = static_cast<float>(at) / 255.0f + 0.001f;
    }
    for (std::size_t axis = 0; axis < 3; ++axis) {
        splat[3 + axis] = 0.1f * static_cast<float>(axis + 1);
        splat[55 + axis] = 0.1f * static_cast<float>(axis + 4);
    }
    splat[58] = 0.25f;
    splat[61] = 1.0f;
    splat[9] = 1.0f;       // red 0
    splat[24 + 14] = 1.0f; // green 14
    splat[39 + 1] = 1.0f;  // blue 1
    const QuantiseRange unit{.min = 0.0, .extent = 1.0};
    const QuantiseSettings settings{.hasCoefficients = true,
                                    .compressed = true,
                                    .scale = {unit, unit, unit},
                                    .normal = {unit, unit, unit},
                                    .coefficients = {unit, unit, unit}};
    SplatsData record;
    quantiseSplat(splat.data(), settings, record);
    EXPECT_EQ(valueAt<float>(record, 0), 1.0f);
    EXPECT_EQ(valueAt<float>(record, 4), 2.0f);
    EXPECT_EQ(valueAt<float>(record, 8), 3.0f);
    EXPECT_EQ(valueAt<std::uint8_t>(record, 12), 6);
    EXPECT_EQ(valueAt<std::uint8_t>(record, 13), 7);
    EXPECT_EQ(valueAt<std::uint8_t>(record, 14), 8);
    EXPECT_EQ(valueAt<std::uint8_t>(record, 15), 54);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        EXPECT_EQ(valueAt<std::uint16_t>(record, 16 + 2 * axis),
                  6553 * (axis + 4) + (axis + 4) / 2); // × 6553.55
        EXPECT_EQ(valueAt<std::uint16_t>(record, 26 + 2 * axis), 6553 * (axis + 1) + (axis + 1) / 2);
    }
    EXPECT_EQ(valueAt<std::uint32_t>(record, 22), 255u | 3u << 30);
    EXPECT_EQ(valueAt<std::uint32_t>(record, 32), 2047u);                // word 0: red
    EXPECT_EQ(valueAt<std::uint32_t>(record, 36), 2047u << 21);          // word 1: blue
    EXPECT_EQ(valueAt<std::uint32_t>(record, 32 + 4 * 14), 1023u << 11); // word 14: green
    EXPECT_EQ(valueAt<std::uint32_t>(record, 40), 0u);
    EXPECT_EQ(valueAt<std::uint32_t>(record, 92), 0u); // four zero bytes
}

TEST(QuantiseSplat, RawCoefficientsAreInterleaved) {
    std::vector<float> splat(layoutWithCoefficients.floats, 0.0f);
    for (std::size_t k = 0; k < 15; ++k) {
        splat[9 + k] = 100.0f + static_cast<float>(k);
        splat[24 + k] = 200.0f + static_cast<float>(k);
        splat[39 + k] = 300.0f + static_cast<float>(k);
    }
    QuantiseSettings settings{};
    settings.hasCoefficients = true;
    settings.compressed = false;
    SplatsData record;
    quantiseSplat(splat.data(), settings, record);
    for (std::size_t k = 0; k < 15; ++k) {
        for (std::size_t channel = 0; channel < 3; ++channel) {
            EXPECT_EQ(valueAt<float>(record, 96 + 12 * k + 4 * channel),
                      static_cast<float>(100 * (channel + 1) + k));
        }
    }
    for (std::size_t offset = 96 + 180; offset < 288; ++offset) {
        EXPECT_EQ(valueAt<std::uint8_t>(record, offset), 0); // 12 unused bytes, written as zeros
    }
}

TEST(QuantiseColour, TruncatesAndKeepsTheLowEightBits) {
    struct Row {
        float value;
        int bits;
    };
    const Row rows[] = {{0.0f, 0},
                        {1.0f, 255},
                        {0.5f, 127},
                        {0.00392f, 0},
                        {0.0039216f, 1},
                        {std::nextafter(1.0f, 0.0f), 254},
                        {256.0f / 255.0f + 1e-6f, 0},
                        {2.0f, 254},
                        {-0.003f, 0},
                        {-0.1f, 256 - 25},
                        {-1.0f, 1},
                        {nan, 0},
                        {infinity, 0},
                        {-infinity, 0},
                        {1e30f, 0},
                        {65793.0f, 255},   // 2^24 - 1
                        {16843009.0f, 0}}; // 2^32, rounded in single precision
    for (const Row& row : rows) {
        EXPECT_EQ(quantiseColour(row.value), row.bits) << row.value;
    }
}

TEST(Quantise16, SpansItsRange) {
    EXPECT_EQ(quantise16(-2.0f, rangeOf(-2.0, 6.0)), 0);
    EXPECT_EQ(quantise16(6.0f, rangeOf(-2.0, 6.0)), 65535);
    EXPECT_EQ(quantise16(2.0f, rangeOf(-2.0, 6.0)), 32767);
    EXPECT_EQ(quantise16(std::nextafter(6.0f, 0.0f), rangeOf(-2.0, 6.0)), 65535); // the half above 65535
}

TEST(Quantise16, OutsideItsRangeItWraps) {
    EXPECT_EQ(quantise16(14.0f, rangeOf(-2.0, 6.0)), 131071 - 65536);
    EXPECT_EQ(quantise16(-2.001f, rangeOf(-2.0, 6.0)), 65536 - 8);
    EXPECT_EQ(quantise16(-2.0001f, rangeOf(-2.0, 6.0)), 0); // truncated toward zero
    EXPECT_EQ(quantise16(-10.0f, rangeOf(-2.0, 6.0)), 65536 - 65535);
}

TEST(Quantise16, ImpossibleValuesAndRangesGiveZero) {
    EXPECT_EQ(quantise16(5.0f, rangeOf(5.0, 5.0)), 0); // 0 / 0
    EXPECT_EQ(quantise16(6.0f, rangeOf(5.0, 5.0)), 0); // infinity
    EXPECT_EQ(quantise16(4.0f, rangeOf(5.0, 5.0)), 0);
    for (const float value : {nan, infinity, -infinity}) {
        EXPECT_EQ(quantise16(value, rangeOf(0.0, 1.0)), 0);
        EXPECT_EQ(quantise16(value, rangeOf(-std::numeric_limits<double>::infinity(), 1.0)), 0);
    }
    const AttributeRange none; // nothing was folded in
    EXPECT_EQ(quantise16(1.0f, rangeOf(none.min.x, none.max.x)), 0);
}

TEST(PackRotationWord, PutsTenTenTenAndTwoBits) {
    struct Row {
        std::array<float, 4> rotation;
        std::uint32_t word;
    };
    const std::uint32_t all = 0xFFFFFFFF;
    const Row rows[] = {
        {{0, 0, 0, 0}, 0},
        {{1, 0, 0, 0}, 1023},
        {{0, 1, 0, 0}, 1023u << 10},
        {{0, 0, 1, 0}, 1023u << 20},
        {{0, 0, 0, 1}, 3u << 30},
        {{0, 0, 0, 1.0f / 3.0f}, 1u << 30},
        {{0, 0, 0, 2.0f / 3.0f}, 2u << 30},
        {{1, 1, 1, 1}, all},
        {{0.5f, 0.25f, 0.125f, 0}, 511u | 255u << 10 | 127u << 20},
        {{1.0006f, 0, 0, 0}, 1u << 10}, // 1024 overflows into the next field: nothing is masked
        {{0, 0, 1.0006f, 0}, 1u << 30},
        {{-0.001f, 0, 0, 0}, all}, // -1
        {{0, -0.001f, 0, 0}, 0xFFFFFC00},
        {{0, 0, 0, 4.0f / 3.0f}, 0}, // 4 is shifted out
        {{nan, infinity, -infinity, 1}, 3u << 30},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(packRotationWord(row.rotation.data()), row.word) << testing::PrintToString(row.rotation);
    }
}

TEST(PackCoefficientWord, PutsElevenTenElevenBits) {
    const QuantiseRange ranges[3] = {rangeOf(-1, 1), rangeOf(-2, 2), rangeOf(0, 4)};
    EXPECT_EQ(packCoefficientWord(-1, -2, 0, ranges), 0u);
    EXPECT_EQ(packCoefficientWord(1, -2, 0, ranges), 2047u);
    EXPECT_EQ(packCoefficientWord(-1, 2, 0, ranges), 1023u << 11);
    EXPECT_EQ(packCoefficientWord(-1, -2, 4, ranges), 2047u << 21);
    EXPECT_EQ(packCoefficientWord(0, 0, 2, ranges), 1023u | 511u << 11 | 1023u << 21);
}

TEST(PackCoefficientWord, OutsideItsRangeEachFieldWrapsInItsOwnBits) {
    const QuantiseRange ranges[3] = {rangeOf(0, 1), rangeOf(0, 1), rangeOf(0, 1)};
    EXPECT_EQ(packCoefficientWord(2, 0, 0, ranges), 4095u % 2048);
    EXPECT_EQ(packCoefficientWord(0, 2, 0, ranges), (2047u % 1024) << 11);
    EXPECT_EQ(packCoefficientWord(0, 0, 2, ranges), (4095u % 2048) << 21);
    EXPECT_EQ(packCoefficientWord(-0.001f, 0, 0, ranges), 2046u); // -2
    EXPECT_EQ(packCoefficientWord(0, -0.001f, 0, ranges), 1023u << 11);
    EXPECT_EQ(packCoefficientWord(nan, infinity, -infinity, ranges), 0u);
}

TEST(QuantiseSettings, TakesItsRangesFromTheBounding) {
    AttributeBounding bounding;
    bounding.scale = {.name = {}, .min = {1, 2, 3}, .max = {5, 7, 9}};
    bounding.normal = {.name = {}, .min = {-1, -2, -3}, .max = {1, 2, 3}};
    bounding.shcoef = {.name = {}, .min = {0, 10, 20}, .max = {1, 12, 23}};
    const QuantiseSettings settings = quantiseSettings(bounding, false);
    EXPECT_TRUE(settings.hasCoefficients);
    EXPECT_FALSE(settings.compressed);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        const double step = static_cast<double>(axis);
        EXPECT_EQ(settings.scale[axis].min, 1 + step);
        EXPECT_EQ(settings.scale[axis].extent, 4 + step);
        EXPECT_EQ(settings.normal[axis].min, -1 - step);
        EXPECT_EQ(settings.normal[axis].extent, 2 + 2 * step);
        EXPECT_EQ(settings.coefficients[axis].min, 10 * step);
        EXPECT_EQ(settings.coefficients[axis].extent, 1 + step);
    }
    bounding.hasShcoef = false;
    EXPECT_FALSE(quantiseSettings(bounding, true).hasCoefficients);
    EXPECT_TRUE(quantiseSettings(bounding, true).compressed);
}

// Expects every variant of the quantiser to give the bytes of the formulas, for both forms of coefficients.
void expectRecord(const float* splat, bool hasCoefficients, const reference::Ranges& ranges) {
    const reference::Quantised expected = reference::quantise(splat, hasCoefficients, ranges);
    const std::shared_ptr<AttributeBounding> bounding = boundingOf(ranges, hasCoefficients);
    for (const bool compressed : {true, false}) {
        const QuantiseSettings settings = quantiseSettings(*bounding, compressed);
        SplatsData plain;
        quantiseSplat(splat, settings, plain);
        std::vector<std::pair<SplatsData, std::string>> records = {{plain, "plain"}};
        for (const Kernels kernels : supportedKernels()) {
            SplatsData fast;
            FastQuantiser(settings, kernels).quantise(splat, fast);
            records.emplace_back(fast, kernels == Kernels::avx2 ? "avx2" : "baseline");
        }
        for (const auto& [record, variant] : records) {
            ASSERT_EQ(std::memcmp(&record, expected.data.data(), expected.data.size()), 0) << variant;
            const void* const coefficients =
                compressed ? static_cast<const void*>(record.packed) : static_cast<const void*>(record.raw);
            const void* const wanted = compressed ? expected.packed.data() : expected.raw.data();
            const std::size_t size = compressed ? expected.packed.size() : expected.raw.size();
            ASSERT_TRUE(!hasCoefficients || std::memcmp(coefficients, wanted, size) == 0) << variant;
        }
    }
}

TEST(QuantiseRecords, OfScenesFollowTheFormulas) {
    Random random(60);
    for (const bool hasCoefficients : {false, true}) {
        const std::vector<float> scene = decodedScene(random, 4000, hasCoefficients, 50.0f);
        const reference::Ranges ranges = rangesOf(scene, hasCoefficients);
        for (std::size_t at = 0; at < scene.size() && !testing::Test::HasFailure();
             at += recordLayout(hasCoefficients).floats) {
            expectRecord(scene.data() + at, hasCoefficients, ranges);
        }
    }
}

reference::Bounds anyBounds(Random& random) {
    switch (support::below(random, 6)) {
    case 0: // of no extent
        return {.min = 0.75, .max = 0.75};
    case 1: // any doubles: tiny, huge, negative extents
        return {.min = support::anyDouble(random), .max = support::anyDouble(random)};
    case 2: // subnormal extents
        return {.min = 0.0,
                .max = std::numeric_limits<double>::denorm_min() * static_cast<double>(random.next())};
    case 3:
        return {.min = support::mixedFloat(random, -4.0f, 0.0f),
                .max = support::mixedFloat(random, 0.0f, 4.0f)};
    case 4: // nothing was folded in
        return {};
    default:
        return {.min = random.between(-4.0f, 0.0f), .max = random.between(0.0f, 4.0f)};
    }
}

TEST(QuantiseRecords, OfAnyValuesInAnyRangesFollowTheFormulas) {
    Random random(61);
    for (int i = 0; i < 30'000 && !testing::Test::HasFailure(); ++i) {
        const bool hasCoefficients = i % 2 == 0;
        reference::Ranges ranges;
        for (std::size_t axis = 0; axis < 3; ++axis) {
            ranges.normal[axis] = anyBounds(random);
            ranges.scale[axis] = anyBounds(random);
            ranges.coefficients[axis] = anyBounds(random);
        }
        std::vector<float> splat(recordLayout(hasCoefficients).floats);
        for (float& value : splat) {
            value = i % 3 == 0 ? random.between(0.0f, 1.0f) : support::mixedFloat(random, -1.0f, 2.0f);
        }
        expectRecord(splat.data(), hasCoefficients, ranges);
    }
}

// One value lies outside its range. All others are inside and far from a step, so only this value can make
// the quantiser take its plain form.
TEST(QuantiseRecords, OneValueOutOfItsRangeWrapsAlone) {
    const float values[] = {-0.0f,   -1e-9f, -0.001f, -0.02f, -0.4f,     -1.5f, -40.0f, -3e9f, 1.0001f,
                            1.0021f, 1.02f,  1.3f,    2.7f,   300.0f,    7e4f,  3e9f,   1e20f, infinity,
                            -1e20f,  nan,    -nan,    1e-40f, -infinity, 1.0f,  0.0f,   512.0f};
    reference::Ranges ranges;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        for (reference::Bounds* const bounds :
             {&ranges.normal[axis], &ranges.scale[axis], &ranges.coefficients[axis]}) {
            *bounds = {.min = 0.0, .max = 1.0};
        }
    }
    for (const bool hasCoefficients : {false, true}) {
        for (std::size_t at = 0; at < recordLayout(hasCoefficients).floats; ++at) {
            for (const float value : values) {
                std::vector<float> splat(recordLayout(hasCoefficients).floats, 0.3345f);
                splat[at] = value;
                SCOPED_TRACE(std::to_string(at) + ": " + support::describe(value));
                ASSERT_NO_FATAL_FAILURE(expectRecord(splat.data(), hasCoefficients, ranges));
            }
        }
    }
}

// Values exactly where the 16-bit integer increases, and a few units in the last place to both sides. The
// minimum of the range is chosen so that the difference is exact.
TEST(QuantiseRecords, SixteenBitStepsFallWhereTheFormulaPutsThem) {
    Random random(62);
    const double extents[] = {1.0, 3.0, 0.7, 5.0 / 3.0, 1e-3, 8.390625, 65535.5, 1e5};
    for (int i = 0; i < 40'000 && !testing::Test::HasFailure(); ++i) {
        reference::Ranges ranges;
        std::vector<float> splat(layoutWithoutCoefficients.floats, 0.25f);
        for (std::size_t axis = 0; axis < 3; ++axis) {
            for (const bool isScale : {false, true}) {
                const double extent = extents[support::below(random, std::size(extents))];
                const double step = static_cast<double>(support::below(random, 65'537));
                double difference = step / 65535.5 * extent;
                for (std::uint64_t nudge = support::below(random, 4); nudge > 0; --nudge) {
                    difference = std::nextafter(difference, i % 2 == 0 ? 1e9 : -1e9);
                }
                const reference::Bounds bounds{.min = -difference, .max = extent - difference};
                (isScale ? ranges.scale : ranges.normal)[axis] = bounds;
                splat[(isScale ? 10 : 3) + axis] = 0.0f;
            }
        }
        expectRecord(splat.data(), false, ranges);
    }
}

// The smallest float whose product with factor has this integer part.
float firstFloatOf(std::uint64_t integer, float factor) {
    float value = static_cast<float>(static_cast<double>(integer) / factor);
    while (value * factor >= static_cast<float>(integer)) {
        value = std::nextafter(value, 0.0f);
    }
    return std::nextafter(value, 2.0f);
}

// Coefficients whose normalised double is the midpoint of the two floats between which the packed integer
// increases, and a few units in the last place to both sides. There the rounding to single precision decides.
TEST(QuantiseRecords, CoefficientStepsFallWhereTheRoundingPutsThem) {
    Random random(63);
    const double extents[] = {1.0, 3.0, 5.0, 7.0, 0.75, 11.0 / 16.0, 13.0, 1.25, 1e-3, 0.3};
    for (int i = 0; i < 20'000 && !testing::Test::HasFailure(); ++i) {
        reference::Ranges ranges;
        std::vector<float> splat(layoutWithCoefficients.floats, 0.0f);
        for (std::size_t channel = 0; channel < 3; ++channel) {
            const bool isGreen = channel == 1;
            const std::uint64_t step = 1 + support::below(random, isGreen ? 1023 : 2047);
            const float above = firstFloatOf(step, isGreen ? 1023.5f : 2047.5f);
            const double midpoint = (double{above} + double{std::nextafter(above, 0.0f)}) / 2.0;
            const double extent = extents[support::below(random, std::size(extents))];
            double difference = midpoint * extent;
            for (std::uint64_t nudge = support::below(random, 5); nudge > 0; --nudge) {
                difference = std::nextafter(difference, i % 2 == 0 ? 1e9 : -1e9);
            }
            ranges.coefficients[channel] = {.min = -difference, .max = extent - difference};
        }
        expectRecord(splat.data(), true, ranges);
    }
}

// Coefficients within a few floats of where the packed integer increases, in ranges as scenes have them, and
// at both ends of the range.
TEST(QuantiseRecords, CoefficientsAroundEveryStepFollowTheFormulas) {
    Random random(65);
    for (int i = 0; i < 20'000 && !testing::Test::HasFailure(); ++i) {
        reference::Ranges ranges;
        std::vector<float> splat(layoutWithCoefficients.floats, 0.25f);
        for (std::size_t channel = 0; channel < 3; ++channel) {
            const float magnitude = std::ldexp(1.0f, static_cast<int>(support::below(random, 40)) - 20);
            const float min = i % 4 == 0 ? 0.0f : random.between(-magnitude, magnitude);
            const float max = min + random.between(0.1f, 2.0f) * magnitude;
            ranges.coefficients[channel] = {.min = min, .max = max};
            const std::uint64_t steps = channel == 1 ? 1023 : 2047;
            for (std::size_t k = 0; k < 15; ++k) {
                const double step = static_cast<double>(support::below(random, steps + 1));
                float value =
                    static_cast<float>(min + (double{max} - min) * step / (static_cast<double>(steps) + 0.5));
                for (std::uint64_t nudge = support::below(random, 4); nudge > 0; --nudge) {
                    value = std::nextafter(value, k % 2 == 0 ? max : min);
                }
                splat[9 + 15 * channel + k] = k == 14 ? (i % 2 == 0 ? min : max) : value;
            }
        }
        expectRecord(splat.data(), true, ranges);
    }
}

} // namespace

} // namespace Tavrin::GaussionSplat
