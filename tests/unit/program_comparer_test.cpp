// Comparing one record of a source with its record in a dataset.
#include "program/compare/comparer.h"
#include "tests/support/dataset_writer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

using DatasetWriter::StoredSplat;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

// The ranges of the dataset, and its steps.
constexpr double normalStep = 2.0 / 65535.5;
constexpr double colourStep = 1.0 / 255.0;
constexpr double scaleStep = 3.75 / 65535.5;
constexpr double redStep = 1.0 / 2047.5;

double colourProperty(double colour) {
    return (colour - 0.5) / 0.28209479177387814;
}

double logit(double opacity) {
    return std::log(opacity / (1.0 - opacity));
}

// A splat with values away from the ends of every range.
StoredSplat ordinarySplat() {
    StoredSplat splat;
    splat.position = {1.5f, 2.5f, 0.5f};
    splat.colour = {10, 100, 200, 50};
    splat.scale = {1'000, 20'000, 60'000};
    splat.normal = {3, 30'000, 65'000};
    splat.coefficients.fill(700u | (300u << 11) | (1500u << 21));
    return splat;
}

// A record of the source with the values of the PLY file.
struct Source {
    static constexpr std::size_t normal = 3;
    static constexpr std::size_t colour = 6;
    static constexpr std::size_t coefficients = 9;

    explicit Source(bool hasCoefficients = true)
        : floats(static_cast<std::uint32_t>(GaussionSplat::recordLayout(hasCoefficients).floats)),
          opacity(floats - 8), scale(floats - 7), rotation(floats - 4) {}

    bool hasCoefficients() const { return floats == GaussionSplat::layoutWithCoefficients.floats; }

    std::uint32_t floats;
    std::size_t opacity;
    std::size_t scale;
    std::size_t rotation;
    std::array<float, GaussionSplat::layoutWithCoefficients.floats> values{};

    void set(std::size_t at, double value) { values[at] = static_cast<float>(value); }
    const std::byte* bytes() const { return reinterpret_cast<const std::byte*>(values.data()); }
};

// The record whose values are the middles of the stored values' intervals.
Source sourceOf(const StoredSplat& splat, bool hasCoefficients = true) {
    Source source(hasCoefficients);
    std::copy(splat.position.begin(), splat.position.end(), source.values.begin());
    for (std::size_t axis = 0; axis < 3; ++axis) {
        source.set(Source::normal + axis, -1.0 + (splat.normal[axis] + 0.5) * normalStep);
        source.set(Source::colour + axis, colourProperty((splat.colour[axis] + 0.5) * colourStep));
        source.set(source.scale + axis, std::log(0.25 + (splat.scale[axis] + 0.5) * scaleStep));
    }
    source.set(source.opacity, logit((splat.colour[3] + 0.5) / 255.0));
    source.set(source.rotation, 1.0);
    for (std::size_t k = 0; hasCoefficients && k < 15; ++k) {
        const std::uint32_t word = splat.coefficients[k];
        source.set(Source::coefficients + k, -0.5 + ((word & 2047) + 0.5) / 2047.5);
        source.set(Source::coefficients + 15 + k, -0.5 + ((word >> 11 & 1023) + 0.5) / 1023.5);
        source.set(Source::coefficients + 30 + k, -0.5 + ((word >> 21) + 0.5) / 2047.5);
    }
    return source;
}

class ComparerTest : public testing::Test {
protected:
    // A comparer after comparing this record with the stored one, which have the numbers 7 and 2.
    Comparer compared(const Source& source, const StoredSplat& splat,
                      const DatasetWriter::MetaFields& fields = {}) {
        DatasetWriter::MetaFields form = fields;
        form.fileType = source.hasCoefficients() ? "Quality" : "Portable";
        DatasetWriter::writeFiles(folder_.path(), DatasetWriter::oneCellFiles({splat}, form));
        dataset_.emplace(SplatReader::Dataset::open(folder_.path()));
        const std::string data = DatasetWriter::dataRecord(splat);
        const std::string coefficients = DatasetWriter::packedCoefficients(splat);
        Comparer comparer(*dataset_, source.hasCoefficients());
        comparer.compare(
            source.bytes(), 7,
            {2, reinterpret_cast<const std::byte*>(data.data()),
             source.hasCoefficients() ? reinterpret_cast<const std::byte*>(coefficients.data()) : nullptr});
        return comparer;
    }

    static AttributeError errorOf(const Comparer& comparer, const std::string& name) {
        for (const AttributeError& error : comparer.errors()) {
            if (error.name == name) {
                return error;
            }
        }
        ADD_FAILURE() << "no attribute " << name;
        return {};
    }

    // Expects exactly one difference: of this attribute, in this file, at this byte.
    static void expectOneDifference(const Comparer& comparer, const std::string& attribute,
                                    const std::string& file, std::uint64_t offset) {
        const auto& errors = comparer.findings().errors();
        ASSERT_THAT(errors, SizeIs(1)) << attribute;
        EXPECT_EQ(errors.front().kind, "against-value");
        EXPECT_EQ(errors.front().file, file);
        EXPECT_EQ(errors.front().offset, offset);
        EXPECT_THAT(errors.front().expected, testing::StartsWith(attribute));
        EXPECT_THAT(errors.front().expected, HasSubstr("splat 7 of the source"));
    }

private:
    DatasetWriter::TemporaryFolder folder_;
    std::optional<SplatReader::Dataset> dataset_; // the comparer refers to it
};

TEST_F(ComparerTest, FindsNothingWhereEveryValueAgrees) {
    const StoredSplat splat = ordinarySplat();
    const Comparer comparer = compared(sourceOf(splat), splat);
    EXPECT_THAT(comparer.findings().errors(), IsEmpty());
    std::vector<std::pair<std::string, std::uint64_t>> values;
    for (const AttributeError& error : comparer.errors()) {
        values.emplace_back(error.name, error.values);
        EXPECT_EQ(error.skipped, 0u) << error.name;
        EXPECT_LE(error.largestSteps, error.name == "rotation" ? 0.5 : 0.01) << error.name;
    }
    EXPECT_EQ(values, (std::vector<std::pair<std::string, std::uint64_t>>{{"normal", 3},
                                                                          {"colour", 3},
                                                                          {"opacity", 1},
                                                                          {"scale", 3},
                                                                          {"rotation", 3},
                                                                          {"coefficients", 45}}));
}

TEST_F(ComparerTest, ComparesRecordsWithoutCoefficients) {
    const StoredSplat splat = ordinarySplat();
    const Comparer comparer = compared(sourceOf(splat, false), splat);
    EXPECT_THAT(comparer.findings().errors(), IsEmpty());
    EXPECT_EQ(errorOf(comparer, "scale").values, 3u);
    EXPECT_EQ(errorOf(comparer, "coefficients").values, 0u);
}

// A value of the source at this distance from the stored one, in steps.
struct Shift {
    const char* attribute;
    std::size_t at; // in the record
    double (*shifted)(const StoredSplat& splat, double steps);
};

const std::vector<Shift>& shifts() {
    static const std::vector<Shift> all = {
        {"normal", Source::normal + 1,
         [](const StoredSplat& s, double steps) { return -1.0 + (s.normal[1] + 0.5 + steps) * normalStep; }},
        {"colour", Source::colour + 2,
         [](const StoredSplat& s, double steps) {
             return colourProperty((s.colour[2] + 0.5 + steps) * colourStep);
         }},
        {"opacity", 54,
         [](const StoredSplat& s, double steps) { return logit((s.colour[3] + 0.5 + steps) / 255.0); }},
        {"scale", 55,
         [](const StoredSplat& s, double steps) {
             return std::log(0.25 + (s.scale[0] + 0.5 + steps) * scaleStep);
         }},
        {"coefficients", Source::coefficients + 4,
         [](const StoredSplat& s, double steps) {
             return -0.5 + ((s.coefficients[4] & 2047) + 0.5 + steps) * redStep;
         }},
    };
    return all;
}

TEST_F(ComparerTest, AllowsHalfAStep) {
    const StoredSplat splat = ordinarySplat();
    for (const Shift& shift : shifts()) {
        for (const double steps : {-0.45, 0.45}) {
            Source source = sourceOf(splat);
            source.set(shift.at, shift.shifted(splat, steps));
            const Comparer comparer = compared(source, splat);
            EXPECT_THAT(comparer.findings().errors(), IsEmpty()) << shift.attribute << ' ' << steps;
            EXPECT_NEAR(errorOf(comparer, shift.attribute).largestSteps, 0.45, 0.01) << shift.attribute;
        }
    }
}

TEST_F(ComparerTest, TellsWhatLiesFartherAway) {
    const StoredSplat splat = ordinarySplat();
    for (const Shift& shift : shifts()) {
        const bool isCoefficient = std::string("coefficients") == shift.attribute;
        for (const double steps : {-0.6, 0.6, 2.0}) {
            Source source = sourceOf(splat);
            source.set(shift.at, shift.shifted(splat, steps));
            const Comparer comparer = compared(source, splat);
            expectOneDifference(comparer, shift.attribute, isCoefficient ? "shcoef.bin" : "data.bin",
                                isCoefficient ? 2 * 64 + 4 * 4 : 2 * 32);
            EXPECT_NEAR(errorOf(comparer, shift.attribute).largestSteps, std::fabs(steps), 0.01);
        }
    }
}

// A splat with a difference takes another code path. Its agreeing values must count as in any other splat.
TEST_F(ComparerTest, CountsTheSameValuesBesideADifference) {
    const StoredSplat splat = ordinarySplat();
    const std::vector<AttributeError> agreeing = compared(sourceOf(splat), splat).errors();
    Source source = sourceOf(splat);
    source.set(Source::normal, 1.0);
    source.set(Source::coefficients, 0.4);
    const Comparer comparer = compared(source, splat);
    EXPECT_THAT(comparer.findings().errors(), SizeIs(2));
    const std::vector<AttributeError> differing = comparer.errors();
    ASSERT_EQ(differing.size(), agreeing.size());
    for (std::size_t i = 0; i < agreeing.size(); ++i) {
        EXPECT_EQ(differing[i].values, agreeing[i].values) << agreeing[i].name;
        if (agreeing[i].name != "normal" && agreeing[i].name != "coefficients") {
            EXPECT_DOUBLE_EQ(differing[i].largest, agreeing[i].largest) << agreeing[i].name;
            EXPECT_DOUBLE_EQ(differing[i].squares, agreeing[i].squares) << agreeing[i].name;
        }
    }
}

TEST_F(ComparerTest, TellsARotationWithAnotherLargestComponent) {
    const StoredSplat splat = ordinarySplat();
    Source source = sourceOf(splat);
    source.set(source.rotation, 0.0);
    source.set(source.rotation + 1, 1.0);
    const Comparer comparer = compared(source, splat);
    EXPECT_FALSE(comparer.findings().errors().empty());
    for (const SplatReader::Finding& finding : comparer.findings().errors()) {
        EXPECT_THAT(finding.expected, testing::StartsWith("rotation"));
    }
}

TEST_F(ComparerTest, TakesBothSignsOfARotationAndAnyLength) {
    const StoredSplat splat = ordinarySplat();
    for (const double length : {-1.0, 1e-6, -40.0}) {
        Source source = sourceOf(splat);
        source.set(source.rotation, length);
        EXPECT_THAT(compared(source, splat).findings().errors(), IsEmpty()) << length;
    }
}

TEST_F(ComparerTest, ComparesPositionsBitForBitAndNothingElseOfAnotherSplat) {
    StoredSplat splat = ordinarySplat();
    Source source = sourceOf(splat);
    splat.position[1] = std::nextafter(splat.position[1], 3.0f);
    source.set(Source::normal, 1.0);
    const Comparer comparer = compared(source, splat);
    ASSERT_THAT(comparer.findings().errors(), SizeIs(1));
    EXPECT_EQ(comparer.findings().errors().front().kind, "against-position");
    EXPECT_EQ(errorOf(comparer, "normal").values, 0u);
}

TEST_F(ComparerTest, SkipsValuesThatAreNotFiniteAndWantsThemStoredAsZero) {
    StoredSplat splat = ordinarySplat();
    Source source = sourceOf(splat);
    source.set(Source::normal + 2, std::nan(""));
    expectOneDifference(compared(source, splat), "normal", "data.bin", 2 * 32);
    splat.normal[2] = 0;
    const Comparer comparer = compared(source, splat);
    EXPECT_THAT(comparer.findings().errors(), IsEmpty());
    EXPECT_EQ(errorOf(comparer, "normal").values, 2u);
    EXPECT_EQ(errorOf(comparer, "normal").skipped, 1u);
}

TEST_F(ComparerTest, ExpectsNothingOfAnAttributeWhoseRangeIsInfinite) {
    const StoredSplat splat = ordinarySplat();
    DatasetWriter::MetaFields fields;
    fields.scales.max[1] = std::numeric_limits<double>::infinity();
    const Comparer comparer = compared(sourceOf(splat), splat, fields);
    EXPECT_THAT(comparer.findings().errors(), IsEmpty());
    EXPECT_EQ(errorOf(comparer, "scale").values, 2u);
    EXPECT_EQ(errorOf(comparer, "scale").skipped, 1u);
}

TEST_F(ComparerTest, TakesOpacityZeroForTheWholeStepAboveIt) {
    StoredSplat splat = ordinarySplat();
    splat.colour[3] = 0;
    for (const double opacity : {0.0001, 0.9 / 255.0}) {
        Source source = sourceOf(splat);
        source.set(source.opacity, logit(opacity));
        EXPECT_THAT(compared(source, splat).findings().errors(), IsEmpty()) << opacity;
    }
    Source source = sourceOf(splat);
    source.set(source.opacity, logit(1.2 / 255.0));
    expectOneDifference(compared(source, splat), "opacity", "data.bin", 2 * 32);
}

} // namespace
} // namespace Tavrin::SplatProgram
