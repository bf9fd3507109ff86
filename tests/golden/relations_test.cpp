// Reads the library's datasets back. All relations of index, data, coefficients and meta document must hold,
// positions must be exact, and every other attribute within its quantiser's step.

#include "reader/dataset.h"
#include "reader/verify.h"
#include "tests/golden/golden_scenes.h"
#include "tests/support/conversion.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>

namespace {

namespace fs = std::filesystem;
using namespace Tavrin::SplatReader;

// A splat of the input with its decoded values.
struct Meant {
    const float* record;
    bool coefficients;

    const float* tail() const { return record + (coefficients ? 54 : 9); } // opacity, scale, rotation
    double colour(std::size_t axis) const {
        return std::clamp(record[6 + axis] * 0.28209479177387814 + 0.5, 0.0, 1.0);
    }
    double opacity() const { return 1.0 / (1.0 + std::exp(-static_cast<double>(tail()[0]))); }
    double scale(std::size_t axis) const { return std::exp(static_cast<double>(tail()[1 + axis])); }
    std::array<double, 4> rotation() const {
        std::array<double, 4> q{};
        double norm = 0.0;
        for (std::size_t i = 0; i < 4; ++i) {
            q[i] = tail()[4 + i];
            norm += q[i] * q[i];
        }
        for (double& component : q) {
            component /= std::sqrt(norm);
        }
        return q;
    }
};

// Within a step, plus the rounding of single precision.
void expectWithin(double found, double meant, double step, const char* what) {
    const double rounding = 4e-6 * std::max(1.0, std::fabs(meant));
    EXPECT_LE(std::fabs(found - meant), step + rounding) << what;
}

void compare(const Meant& meant, const Splat& splat, const Dequantiser& steps) {
    EXPECT_EQ(std::memcmp(splat.position.data(), meant.record, 12), 0) << "position";
    for (std::size_t axis = 0; axis < 3; ++axis) {
        expectWithin(splat.normal[axis], meant.record[3 + axis], steps.normalStep(axis), "normal");
        expectWithin(splat.colour[axis], meant.colour(axis), Dequantiser::colourStep(), "colour");
        expectWithin(splat.scale[axis], meant.scale(axis), steps.scaleStep(axis), "scale");
    }
    expectWithin(splat.opacity, meant.opacity(), Dequantiser::opacityStep(), "opacity");
    const std::array<double, 4> rotation = meant.rotation();
    double cosine = 0.0;
    for (std::size_t i = 0; i < 4; ++i) {
        cosine += rotation[i] * splat.rotation[i];
    }
    // q and -q are the same rotation. An error of half a step in each of three components changes the fourth,
    // which is the largest, by at most one and a half steps. That is sqrt(3) steps together, plus the
    // curvature.
    const double distance = std::sqrt(std::max(0.0, 2.0 - 2.0 * std::fabs(cosine)));
    EXPECT_LE(distance, 1.75 * Dequantiser::rotationStep()) << "rotation";
    for (std::size_t i = 0; meant.coefficients && i < 45; ++i) {
        expectWithin(splat.coefficients[i], meant.record[9 + i], steps.coefficientStep(i / 15),
                     "coefficient");
    }
}

std::string textOf(const std::vector<Finding>& findings) {
    std::string text;
    for (const Finding& finding : findings) {
        text += finding.text() + "\n";
    }
    return text;
}

class Relations : public testing::TestWithParam<const char*> {
protected:
    support::Scratch scratch;
    fs::path output = scratch / "out";
    golden::Scene scene = golden::goldenScene(GetParam());
    std::vector<float> records = scenes::sceneRecords(scene.options);

    void SetUp() override {
        scenes::writeScene(scratch / "scene.ply", scene.options);
        const support::HostReport report =
            support::convertOnce(scratch.folder(), scratch / "scene.ply", output);
        ASSERT_EQ(report.calls.size(), 1u);
        ASSERT_EQ(report.calls.front().result, 0);
        fs::remove(scratch / "scene.ply");
    }

    std::size_t floats() const { return scenes::recordFloats(scene.options.coefficients); }

    // The numbers of the input's splats by cell. A cell keeps the input's order.
    std::map<std::uint32_t, std::vector<std::size_t>> inputByCell(const Dataset& dataset) const {
        std::map<std::uint32_t, std::vector<std::size_t>> cells;
        for (std::size_t i = 0; i < records.size() / floats(); ++i) {
            const float* const record = records.data() + i * floats();
            cells[dataset.grid().keyAt(record[0], record[1])].push_back(i);
        }
        return cells;
    }
};

TEST_P(Relations, HoldInTheWholeDataset) {
    VerifyOptions options;
    options.level = VerifyLevel::full;
    const VerifyReport report = verifyDataset(output, options);
    EXPECT_EQ(textOf(report.findings.errors()), "");
    // The box is scanned in steps of 62 floats, so records of 17 may lie outside it.
    const bool exactBox = scene.options.coefficients || scene.options.statedBounds;
    for (const auto& [kind, count] : report.findings.warningKinds()) {
        EXPECT_TRUE(kind == "record-box" && !exactBox) << count << " of " << kind << ":\n"
                                                       << textOf(report.findings.warnings());
    }
    EXPECT_EQ(report.splatsHeld, scene.options.splats);
    EXPECT_EQ(report.splatsLeftOut, 0u);
}

TEST_P(Relations, EverySplatComesBack) {
    const Dataset dataset = Dataset::open(output);
    auto cells = inputByCell(dataset);
    ASSERT_EQ(dataset.cellCount(), cells.size());
    for (std::size_t cell = 0; cell < dataset.cellCount(); ++cell) {
        const std::vector<std::size_t>& members = cells[dataset.cellKey(cell)];
        ASSERT_EQ(dataset.range(cell, 0).count, members.size());
        RecordCursor cursor = dataset.records(dataset.range(cell, 0));
        RecordCursor::View view{};
        for (const std::size_t i : members) {
            ASSERT_TRUE(cursor.next(view));
            Splat splat = dataset.dequantiser().splat(loadRecord(view.data));
            if (view.coefficients != nullptr) {
                dataset.dequantiser().coefficients(view.coefficients, splat);
            }
            compare({records.data() + i * floats(), scene.options.coefficients}, splat,
                    dataset.dequantiser());
            ASSERT_FALSE(HasFailure()) << "splat " << i << " of the input";
        }
        ASSERT_FALSE(cursor.next(view));
    }
}

std::string nameOf(const testing::TestParamInfo<const char*>& scene) {
    return scene.param;
}

INSTANTIATE_TEST_SUITE_P(Small, Relations, testing::Values("one_splat", "cell_plain", "cell_coefficients"),
                         nameOf);
INSTANTIATE_TEST_SUITE_P(Large, Relations,
                         testing::Values("million_plain", "grid_plain", "grid_coefficients"), nameOf);

} // namespace
