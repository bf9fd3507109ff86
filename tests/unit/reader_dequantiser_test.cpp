// Compares de-quantisation with the formulas that store values, which are written here independently.
#include "reader/dequantiser.h"
#include "tests/support/dataset_writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace {

using namespace Tavrin::SplatReader;

Meta metaOf(const DatasetWriter::MetaFields& fields) {
    Findings findings;
    std::optional<Meta> meta = parseMeta(DatasetWriter::metaText(fields), findings);
    EXPECT_TRUE(meta) << findings.errorCount();
    return meta.value_or(Meta{});
}

std::uint16_t storeWord(double value, double min, double max) {
    return static_cast<std::uint16_t>((value - min) / (max - min) * 65535.5);
}

TEST(ReaderDequantiser, WordsComeBackWithinHalfAStep) {
    DatasetWriter::MetaFields fields;
    fields.scales = {{0.001, 1e-30, 5}, {270.0, 3e-30, 5.5}};
    const Dequantiser back(metaOf(fields));
    std::mt19937 engine(1);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        const double min = fields.scales.min[axis];
        const double max = fields.scales.max[axis];
        const double half = (max - min) / 65535.5 / 2 * (1 + 1e-9);
        EXPECT_DOUBLE_EQ(back.scaleStep(axis), (max - min) / 65535.5);
        for (int i = 0; i < 20'000; ++i) {
            const double value = min + (max - min) * (static_cast<double>(engine()) / 4294967295.0);
            EXPECT_LE(std::fabs(back.scale(axis, storeWord(value, min, max)) - value), half) << value;
        }
        EXPECT_LE(std::fabs(back.scale(axis, storeWord(min, min, max)) - min), half);
        EXPECT_LE(std::fabs(back.scale(axis, storeWord(max, min, max)) - max), half);
        EXPECT_LE(back.scale(axis, 65535), max);
    }
}

TEST(ReaderDequantiser, EveryStoredValueStoresTheSameAgain) {
    const DatasetWriter::MetaFields fields;
    const Dequantiser back(metaOf(fields));
    for (std::uint32_t q = 0; q <= 65535; ++q) {
        ASSERT_EQ(storeWord(back.scale(0, q), 0.25, 4.0), q);
        ASSERT_EQ(storeWord(back.normal(2, q), -1.0, 1.0), q);
    }
    for (std::uint32_t q = 0; q <= 2047; ++q) {
        const auto share = static_cast<float>(back.coefficient(0, q) + 0.5);
        ASSERT_EQ(static_cast<std::uint32_t>(share * 2047.5f), q);
    }
    for (std::uint32_t q = 0; q <= 1023; ++q) {
        const auto share = static_cast<float>(back.coefficient(1, q) + 0.5);
        ASSERT_EQ(static_cast<std::uint32_t>(share * 1023.5f), q);
    }
    for (unsigned q = 0; q <= 255; ++q) {
        const auto byte = static_cast<std::uint8_t>(q);
        ASSERT_EQ(static_cast<unsigned>(static_cast<float>(back.colour(1, byte)) * 255.0f), q);
        ASSERT_EQ(static_cast<unsigned>(static_cast<float>(back.opacity(byte)) * 255.0f), q);
    }
}

TEST(ReaderDequantiser, BytesComeBackAtTheirMiddles) {
    const Dequantiser back(metaOf({}));
    EXPECT_DOUBLE_EQ(back.colour(0, 0), 0.5 / 255);
    EXPECT_DOUBLE_EQ(back.colour(0, 100), 100.5 / 255);
    EXPECT_DOUBLE_EQ(back.colour(0, 254), 254.5 / 255);
    EXPECT_EQ(back.colour(0, 255), 1.0);
    EXPECT_DOUBLE_EQ(back.opacity(100), 100.5 / 255);
}

TEST(ReaderDequantiser, OpaqueAndTransparentStaySo) {
    const Dequantiser back(metaOf({}));
    EXPECT_EQ(back.opacity(0), 0.0);
    EXPECT_EQ(back.opacity(255), 1.0);
}

TEST(ReaderDequantiser, TheStatedRangeNarrowsTheInterval) {
    DatasetWriter::MetaFields fields;
    fields.opacity = {{0.001}, {0.5}};
    const Dequantiser back(metaOf(fields));
    EXPECT_DOUBLE_EQ(back.opacity(0), (0.001 + 1.0 / 255) / 2); // no splat was fully transparent
    EXPECT_DOUBLE_EQ(back.opacity(127), (127.0 / 255 + 0.5) / 2);
}

TEST(ReaderDequantiser, EqualEndsGiveTheValue) {
    DatasetWriter::MetaFields fields;
    fields.normal = {{0, 0.25, -3}, {0, 0.25, -3}};
    const Dequantiser back(metaOf(fields));
    for (const std::uint32_t q : {0u, 77u, 65535u}) {
        EXPECT_EQ(back.normal(0, q), 0.0);
        EXPECT_EQ(back.normal(1, q), 0.25);
        EXPECT_EQ(back.normal(2, q), -3.0);
    }
    EXPECT_EQ(back.normalStep(1), 0.0);
}

TEST(ReaderDequantiser, InfiniteRangesGiveNoInfinities) {
    const double inf = std::numeric_limits<double>::infinity();
    DatasetWriter::MetaFields fields;
    fields.scales = {{inf, 0.5, 0.5}, {-inf, inf, 1}};
    const Dequantiser back(metaOf(fields));
    for (const std::uint32_t q : {0u, 77u, 65535u}) {
        EXPECT_EQ(back.scale(0, q), 0.0);
        EXPECT_EQ(back.scale(1, q), 0.5);
        EXPECT_TRUE(std::isfinite(back.scale(2, q)));
    }
}

// The packing by its definition: the largest of (x, y, z, w) is dropped, and the others are multiplied by its
// sign.
std::uint32_t packRotation(const std::array<float, 4>& wxyz) {
    std::array<float, 4> q = {wxyz[1], wxyz[2], wxyz[3], wxyz[0]};
    const float length = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    const float inverse = 1.0f / length;
    for (float& c : q) {
        c *= inverse;
    }
    std::size_t largest = 0;
    for (std::size_t i = 1; i < 4; ++i) {
        if (std::fabs(q[i]) > std::fabs(q[largest])) {
            largest = i;
        }
    }
    const float sign = q[largest] >= 0 ? 1.0f : -1.0f;
    std::uint32_t word = static_cast<std::uint32_t>(static_cast<float>(largest) / 3.0f * 3.5f) << 30;
    int shift = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        if (i != largest) {
            const float mapped = sign * q[i] * 1.4142135f * 0.5f + 0.5f;
            word |= static_cast<std::uint32_t>(mapped * 1023.5f) << shift;
            shift += 10;
        }
    }
    return word;
}

TEST(ReaderDequantiser, IdentityRotationComesBack) {
    EXPECT_EQ(packRotation({1, 0, 0, 0}), DatasetWriter::identityRotation);
    const std::array<double, 4> back = unpackRotation(DatasetWriter::identityRotation);
    EXPECT_NEAR(back[0], 1.0, 1e-6);
    for (std::size_t i = 1; i < 4; ++i) {
        EXPECT_NEAR(back[i], 0.0, Dequantiser::rotationStep() / 2);
    }
}

TEST(ReaderDequantiser, RotationsComeBackAsUnitQuaternionsWithinHalfAStep) {
    std::mt19937 engine(2);
    std::normal_distribution<float> normal;
    for (int i = 0; i < 100'000; ++i) {
        const std::array<float, 4> source = {normal(engine), normal(engine), normal(engine), normal(engine)};
        double length = 0.0;
        for (const float c : source) {
            length += double{c} * c;
        }
        length = std::sqrt(length);
        const std::uint32_t word = packRotation(source);
        ASSERT_TRUE(rotationPossible(word)) << std::hex << word;
        const std::array<double, 4> back = unpackRotation(word);
        double norm = 0.0;
        std::size_t largest = 0;
        for (std::size_t c = 0; c < 4; ++c) {
            norm += back[c] * back[c];
            largest = std::fabs(source[c]) > std::fabs(source[largest]) ? c : largest;
        }
        EXPECT_NEAR(norm, 1.0, 1e-12);
        EXPECT_GT(back[largest], 0.0);
        const double sign = source[largest] >= 0 ? 1.0 : -1.0;
        for (std::size_t c = 0; c < 4; ++c) {
            // The largest is computed from the others, so their three errors add up in it.
            const double step = Dequantiser::rotationStep() * (c == largest ? 2.7 : 0.5) + 1e-6;
            EXPECT_NEAR(back[c], sign * source[c] / length, step);
        }
    }
}

TEST(ReaderDequantiser, EachIndexOfTheLargestHasItsPlace) {
    for (std::size_t place = 0; place < 4; ++place) {
        std::array<float, 4> source{};
        source[place] = -1.0f; // negated: the same rotation
        const std::uint32_t word = packRotation(source);
        EXPECT_EQ(word >> 30, (place + 3) % 4);
        EXPECT_NEAR(unpackRotation(word)[place], 1.0, 1e-5);
    }
}

TEST(ReaderDequantiser, ImpossibleRotationsGiveTheIdentity) {
    const std::array<double, 4> identity = {1, 0, 0, 0};
    for (const std::uint32_t word : {0u, 0xFFFFFFFFu, 0x3FFFFFFFu}) {
        EXPECT_FALSE(rotationPossible(word));
        EXPECT_EQ(unpackRotation(word), identity);
    }
}

TEST(ReaderDequantiser, EqualComponentsAreNotRefused) {
    // Two equal components of 1/sqrt(2), and four of 1/2: the limits of the packing.
    for (const std::array<float, 4>& source :
         {std::array<float, 4>{1, 1, 0, 0}, {0, 1, -1, 0}, {1, 1, 1, 1}, {-1, 1, -1, 1}, {1, 1, 1, 0}}) {
        EXPECT_TRUE(rotationPossible(packRotation(source)));
    }
}

TEST(ReaderDequantiser, PackedCoefficientsTakeTheirChannelsAndPlaces) {
    DatasetWriter::MetaFields fields;
    fields.coefficients = {{-1, 0, 10}, {1, 1, 20}};
    const Dequantiser back(metaOf(fields));
    DatasetWriter::StoredSplat stored;
    for (std::uint32_t k = 0; k < 15; ++k) {
        stored.coefficients[k] = (100 + k) | ((200 + k) << 11) | ((300 + k) << 21);
    }
    const std::string bytes = DatasetWriter::packedCoefficients(stored);
    Splat splat;
    back.coefficients(reinterpret_cast<const std::byte*>(bytes.data()), splat);
    for (std::size_t k = 0; k < 15; ++k) {
        const auto place = static_cast<double>(k);
        EXPECT_DOUBLE_EQ(splat.coefficients[k], -1 + 2 * (100.5 + place) / 2047.5);
        EXPECT_DOUBLE_EQ(splat.coefficients[15 + k], (200.5 + place) / 1023.5);
        EXPECT_DOUBLE_EQ(splat.coefficients[30 + k], 10 + 10 * (300.5 + place) / 2047.5);
    }
    EXPECT_DOUBLE_EQ(back.coefficientStep(2), 10 / 2047.5);
}

TEST(ReaderDequantiser, RawCoefficientsAreExact) {
    DatasetWriter::MetaFields fields;
    fields.encoding = "DEFAULT";
    const Dequantiser back(metaOf(fields));
    std::string bytes;
    for (int k = 0; k < 15; ++k) {
        for (int channel = 0; channel < 3; ++channel) {
            DatasetWriter::putFloat(bytes, static_cast<float>(channel) + 0.1f * static_cast<float>(k));
        }
    }
    bytes.resize(192);
    Splat splat;
    back.coefficients(reinterpret_cast<const std::byte*>(bytes.data()), splat);
    for (std::size_t channel = 0; channel < 3; ++channel) {
        for (std::size_t k = 0; k < 15; ++k) {
            EXPECT_EQ(splat.coefficients[15 * channel + k],
                      static_cast<double>(static_cast<float>(channel) + 0.1f * static_cast<float>(k)));
        }
    }
}

} // namespace
