#include "program/convert/preflight.h"

#include "program/convert/text_sizes.h"
#include "program/system/platform.h"
#include "program/terminal/figures.h"
#include "reader/format.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace Tavrin::SplatProgram {
namespace {

constexpr std::uint64_t dataRecordBytes = 32;
constexpr std::uint64_t coefficientRecordBytes = 64;
constexpr std::uint64_t indexEntryBytes = 20;
constexpr std::uint64_t textBytes = 1 << 20; // room for meta document, log and folder
constexpr std::int64_t mostColumns = 65535;
constexpr std::uint64_t fullestCell = 44'739'242; // splats whose 96 bytes each a 32-bit total still holds

void checkDisk(Plan& plan, const OutputPlace& output, Verdict& verdict) {
    plan.dataBytes = plan.input.file.records * dataRecordBytes;
    plan.coefficientBytes =
        plan.input.file.layout.hasCoefficients() ? plan.input.file.records * coefficientRecordBytes : 0;
    plan.diskBytes = plan.dataBytes + plan.coefficientBytes + textBytes;
    std::error_code error;
    const std::filesystem::space_info space = std::filesystem::space(output.foundation, error);
    if (error) {
        verdict.warn(fmt::format("{}: the free space is not known: {}", output.name, error.message()));
        plan.freeDisk = UINT64_MAX;
        return;
    }
    plan.freeDisk = space.available;
    if (plan.diskBytes > plan.freeDisk) {
        verdict.refuse(
            ExitStatus::outputRefused,
            fmt::format("{}: the dataset needs {} and {} are free at {}: make room, or choose another disk",
                        output.name, bytesText(plan.diskBytes), bytesText(plan.freeDisk),
                        textFromPath(output.foundation)));
    }
}

void checkMemory(Plan& plan, Verdict& verdict) {
    plan.memory = peakMemory(plan.input.file.records, plan.input.file.layout, plan.cells.largest);
    plan.freeMemory = availableMemory();
    if (plan.memory > plan.freeMemory) {
        verdict.refuse(
            ExitStatus::inputRefused,
            fmt::format("{}: converting {} needs {} of memory and {} are free: close other programs, or "
                        "cut the scene into smaller files",
                        plan.input.name, countText(plan.input.file.records, "splat", "splats"),
                        bytesText(plan.memory), bytesText(plan.freeMemory)));
    }
}

// The meta document would hold inf, which is no JSON, and no cell could be told from another.
void requireFiniteBox(const Plan& plan, Verdict& verdict) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        if (!std::isfinite(plan.box.min[axis]) || !std::isfinite(plan.box.max[axis])) {
            verdict.refuse(
                ExitStatus::inputRefused,
                fmt::format("{}: a splat stands at infinity on the {} axis: remove it, or state the bounds "
                            "of the scene in comment lines",
                            plan.input.name, "xyz"[axis]));
            return;
        }
    }
}

void chooseGrid(Plan& plan) {
    SplatReader::Meta meta;
    meta.totalSplats = plan.input.file.records;
    meta.boundingMin = plan.box.min;
    meta.boundingMax = plan.box.max;
    const SplatReader::CellLengths lengths =
        SplatReader::expectedCellLengths(meta.totalSplats, plan.box.min, plan.box.max);
    meta.cellLengthX = lengths.x;
    meta.cellLengthY = lengths.y;
    plan.grid = SplatReader::gridOf(meta);
    plan.areCellsKnown = plan.grid.oneCell || (plan.grid.countable() && !plan.grid.ambiguous());
}

void remarkGrid(const Plan& plan, Verdict& verdict) {
    const std::string& name = plan.input.name;
    if (!plan.grid.oneCell && !plan.grid.countable()) {
        verdict.warn(
            fmt::format("{}: the box is too wide for a grid: remove splats that lie far off, or state bounds "
                        "in comment lines",
                        name));
    }
    const std::array<std::pair<char, std::int64_t>, 2> counts = {
        {{'X', plan.grid.countX}, {'Y', plan.grid.countY}}};
    for (const auto& [axis, count] : counts) {
        if (count > mostColumns) {
            verdict.warn(fmt::format(
                "{}: {} cells on the {} axis, where keys tell {} apart, so cells run into each "
                "other: remove splats that lie far off, or state bounds in comment lines",
                name, countText(static_cast<std::uint64_t>(count)), axis, countText(mostColumns)));
        }
    }
    if (plan.cells.largest > fullestCell) {
        verdict.warn(
            fmt::format("{}: one cell holds {} splats, more than the {} whose bytes a 32-bit number counts: "
                        "check that your viewer opens it, or thin the scene out",
                        name, countText(plan.cells.largest), countText(fullestCell)));
    }
}

} // namespace

std::uint64_t peakMemory(std::uint64_t splats, const SplatLayout& layout, std::uint64_t largestCell) {
    constexpr std::uint64_t splatBytes = 288;
    constexpr std::uint64_t blockSplats = 2'000'000;
    constexpr std::uint64_t otherBytes = 32 << 20; // code, stacks, read windows, hash maps
    const std::uint64_t block = std::min(splats, blockSplats) * layout.recordBytes();
    const std::uint64_t gathered =
        largestCell * (dataRecordBytes + (layout.hasCoefficients() ? coefficientRecordBytes : 0));
    return splats * splatBytes + std::max(block, gathered) + otherBytes;
}

std::optional<Plan> makePlan(const std::optional<InputFacts>& input, const OutputPlace& output,
                             Verdict& verdict, Progress& progress) {
    if (!input) {
        return std::nullopt;
    }
    Plan plan;
    plan.input = *input;
    const SplatFile& file = plan.input.file;
    // The records are in the file, so no product of their count overflows. What is too large is refused
    // before the file is read as a whole.
    checkMemory(plan, verdict);
    checkDisk(plan, output, verdict);

    const std::optional<Box> bounds = plan.input.comments.bounds();
    // Only scenes that are cut into cells take a second pass.
    const bool takesTwoPasses = file.records > SplatReader::Format::oneCellMaximum;
    const double pass = takesTwoPasses ? 0.5 : 1.0;
    plan.extent =
        measureScene(file, bounds, [&](double share) { progress.update(Stage::checking, share * pass); });
    plan.isBoxMeasured = !bounds;
    plan.box = bounds ? *bounds : convertersBox(file, plan.extent);
    requireFiniteBox(plan, verdict);
    chooseGrid(plan);
    plan.cells = countCells(file, plan.grid,
                            [&](double share) { progress.update(Stage::checking, pass + share * pass); });
    progress.clear();
    plan.indexBytes = plan.cells.cells * indexEntryBytes;
    plan.metaBytesAtMost = metaBytesAtMost(plan);
    plan.logBytesAtMost = logBytesAtMost(plan, output);
    if (plan.memory <= plan.freeMemory) {
        checkMemory(plan, verdict); // now that the fullest cell is known
    }

    plan.positionStep = positionSteps(plan.extent.box);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        plan.scaleStep[axis] =
            (plan.extent.scaleMax[axis] - plan.extent.scaleMin[axis]) / SplatReader::Format::wordFactor;
    }
    const bool isGridUsable = plan.grid.oneCell || plan.grid.countable();
    remarkBounds(plan.input, plan.extent, isGridUsable ? plan.cells.leftOut : 0, verdict);
    remarkPrecision(plan.input, plan.extent, verdict);
    remarkGrid(plan, verdict);
    return plan;
}

} // namespace Tavrin::SplatProgram
