// The ranges computed from raw extremes must be those that the library finds in decoded records.

#include "src/chunker_decode.h"
#include "stream/raw_ranges.h"
#include "tests/support/floats.h"
#include "tests/support/plyfile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace Tavrin::SplatStream {

namespace {

using namespace GaussionSplat;

constexpr float infinity = std::numeric_limits<float>::infinity();

// The ranges by the chunker's steps: blocks are decoded, their zeros settled, and their ranges merged in file
// order.
AttributeBounding libraryRanges(std::vector<float> records, bool hasCoefficients, std::size_t blockRecords) {
    const std::size_t stride = recordLayout(hasCoefficients).floats;
    AttributeBounding bounding;
    bounding.hasShcoef = hasCoefficients;
    const std::size_t count = records.size() / stride;
    for (std::size_t first = 0; first < count; first += blockRecords) {
        const std::size_t size = std::min(blockRecords, count - first);
        BlockRanges ranges;
        decodeRecords(records.data() + first * stride, size, hasCoefficients, ranges);
        settleZeroBounds(records.data() + first * stride, size, hasCoefficients, ranges);
        widen(bounding, ranges, hasCoefficients);
    }
    return bounding;
}

// The ranges by the stream: windows are given to random workers, each worker's in file order.
AttributeBounding streamRanges(const std::vector<float>& records, bool hasCoefficients,
                               std::size_t windowRecords, std::size_t workers, support::Random& random) {
    const std::size_t stride = recordLayout(hasCoefficients).floats;
    const std::size_t count = records.size() / stride;
    std::vector<RawRanges> parts(workers, RawRanges(hasCoefficients));
    for (std::size_t first = 0; first < count; first += windowRecords) {
        const std::size_t size = std::min(windowRecords, count - first);
        parts[random.next() % workers].widen(records.data() + first * stride, size, first);
    }
    RawRanges all(hasCoefficients);
    for (const RawRanges& part : parts) {
        all.widen(part);
    }
    return all.decoded();
}

void expectSame(double found, double expected, const char* what) {
    EXPECT_TRUE(found == expected && std::signbit(found) == std::signbit(expected))
        << what << ": " << found << " and " << expected;
}

void expectSame(const AttributeRange& found, const AttributeRange& expected) {
    SCOPED_TRACE(expected.name);
    EXPECT_EQ(found.name, expected.name);
    expectSame(found.min.x, expected.min.x, "min.x");
    expectSame(found.min.y, expected.min.y, "min.y");
    expectSame(found.min.z, expected.min.z, "min.z");
    expectSame(found.max.x, expected.max.x, "max.x");
    expectSame(found.max.y, expected.max.y, "max.y");
    expectSame(found.max.z, expected.max.z, "max.z");
}

void expectSame(const AttributeBounding& found, const AttributeBounding& expected) {
    expectSame(found.position, expected.position);
    expectSame(found.normal, expected.normal);
    expectSame(found.color, expected.color);
    expectSame(found.shcoef, expected.shcoef);
    expectSame(found.opacity, expected.opacity);
    expectSame(found.scale, expected.scale);
    EXPECT_EQ(found.hasShcoef, expected.hasShcoef);
}

// Values for whole scenes: zeros of both signs, values of one sign, only NaN.
const std::vector<std::vector<float>> palettes = {
    {0.0f, -0.0f},
    {-0.0f, 1.0f, 2.0f},
    {0.0f, -0.0f, 1.0f, std::numeric_limits<float>::quiet_NaN()},
    {-0.0f, 0.0f, -1.0f, -3.0f},
    {std::numeric_limits<float>::quiet_NaN()},
    {infinity},
    {-infinity},
    {infinity, -infinity, std::numeric_limits<float>::quiet_NaN()},
    {std::numeric_limits<float>::denorm_min(), -std::numeric_limits<float>::denorm_min(), 0.0f},
    {std::numeric_limits<float>::max(), -std::numeric_limits<float>::max()},
    {-1.7724538f, 1.7724538f, -1.77245390f, 1.77245379f}, // where colours become 0 and 1
    {-110.0f, -104.0f, -103.97f, -87.5f, 88.7f, 88.8f, 100.0f, 1e30f},
};

float paletteFloat(std::size_t palette, support::Random& random) {
    const std::vector<float>& values = palettes[palette];
    return values[random.next() % values.size()];
}

TEST(StreamRanges, AreTheLibrarysOverValuesOfEveryKind) {
    support::Random random(90);
    for (std::size_t palette = 0; palette < palettes.size(); ++palette) {
        for (std::size_t round = 0; round < 40; ++round) {
            const bool hasCoefficients = round % 2 == 1;
            std::vector<float> records((1 + random.next() % 40) * recordLayout(hasCoefficients).floats);
            for (float& value : records) {
                value = paletteFloat(palette, random);
            }
            SCOPED_TRACE(testing::Message() << "values " << palette << ", round " << round);
            expectSame(streamRanges(records, hasCoefficients, 1 + random.next() % 9, 1 + round % 3, random),
                       libraryRanges(records, hasCoefficients, 1 + random.next() % 13));
        }
    }
}

// Each column has another kind of values, most of them ordinary, so that zeros come late and bounds change.
TEST(StreamRanges, AreTheLibrarysOverMixedColumns) {
    support::Random random(91);
    for (std::size_t round = 0; round < 600; ++round) {
        const bool hasCoefficients = round % 2 == 1;
        const std::size_t stride = recordLayout(hasCoefficients).floats;
        std::vector<std::size_t> kinds(stride);
        for (std::size_t& kind : kinds) {
            kind = random.next() % (palettes.size() + 3);
        }
        std::vector<float> records((1 + random.next() % 60) * stride);
        for (std::size_t i = 0; i < records.size(); ++i) {
            const std::size_t kind = kinds[i % stride];
            if (kind < palettes.size()) {
                records[i] = random.next() % 4 == 0 ? paletteFloat(kind, random) : 0.5f;
            } else if (kind == palettes.size()) {
                records[i] = random.between(-12.0f, 5.0f);
            } else {
                records[i] = support::awkwardFloat(random);
            }
        }
        SCOPED_TRACE(round);
        expectSame(streamRanges(records, hasCoefficients, 1 + random.next() % 30, 1 + round % 4, random),
                   libraryRanges(records, hasCoefficients, 1 + random.next() % 40));
    }
}

TEST(StreamRanges, OfNoRecordsAreEmpty) {
    const AttributeBounding none = RawRanges(true).decoded();
    expectSame(none.normal, AttributeBounding().normal);
    expectSame(none.scale, AttributeBounding().scale);
}

} // namespace

} // namespace Tavrin::SplatStream
