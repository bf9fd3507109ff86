#include "program/tiles/tile_plan.h"

#include "program/convert/plan.h"
#include "program/scene/open_scene.h"
#include "program/system/interrupt.h"
#include "program/system/platform.h"
#include "program/terminal/figures.h"
#include "reader/format.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

// The time for a record of this kind, as a multiple of that for a canonical record (docs/performance.md).
double effortOf(std::string_view kind) {
    if (kind.starts_with("SPZ") || kind.ends_with("ascii")) {
        return 3.0;
    }
    return kind.starts_with("compressed") ? 2.0 : kind.ends_with("big_endian") ? 1.5 : 1.0;
}

double roughSeconds(const TilePlan& tile, std::uint64_t records, unsigned threads) {
    constexpr double startSeconds = 0.1;
    const std::size_t floats = GaussionSplat::recordLayout(tile.degree > 0).floats;
    const double bytes = static_cast<double>(records) * static_cast<double>(floats * sizeof(float));
    return startSeconds + effortOf(tile.kind) * bytes / (assumedBytesPerSecond * threads);
}

void describe(TilePlan& tile, const SplatSource::Input& input) {
    std::error_code ignored;
    tile.kind = input.kind;
    tile.degree = input.degree;
    tile.inputBytes = std::filesystem::file_size(pathFromText(tile.input), ignored);
    tile.scratchBytes = input.scratchBytes;
}

// An upper bound for the cells, by the bounds in the header; nothing if it states none.
std::optional<std::uint64_t> cellsByHeader(const SplatSource::Input& input) {
    if (input.count <= SplatReader::Format::oneCellMaximum) {
        return 1;
    }
    const std::optional<Box> bounds = input.stated.bounds();
    if (!bounds) {
        return std::nullopt;
    }
    const SplatReader::Grid grid = gridOf(input.count, *bounds);
    return grid.countable() ? std::optional(std::min(static_cast<std::uint64_t>(grid.countX) *
                                                         static_cast<std::uint64_t>(grid.countY),
                                                     input.count))
                            : std::nullopt;
}

// A scene with as many splats as the header states, spread evenly over `cells` cells.
SplatStream::Measured evenScene(const SplatSource::Input& input, std::uint64_t cells) {
    SplatStream::Measured measured;
    measured.read = measured.splats = measured.countedSplats = input.count;
    measured.hasCoefficients = input.hasCoefficients;
    measured.params = input.params;
    for (std::uint64_t i = 0; i < cells; ++i) {
        const std::uint64_t more = i < input.count % cells ? 1 : 0;
        measured.cells.push_back(
            {.key = static_cast<std::uint32_t>(i), .splats = input.count / cells + more});
    }
    measured.occupiedCells = cells;
    return measured;
}

void planByHeader(TilePlan& tile, const PlanWish& wish) {
    const std::unique_ptr<SplatSource::Input> input = openHeader(tile.input);
    describe(tile, *input);
    tile.splats = input->count;
    tile.cells = cellsByHeader(*input);
    tile.areCellsExact = tile.cells == 1u;
    const std::uint64_t cells = tile.cells.value_or(std::min(assumedCells, input->count));
    tile.outputBytes = datasetBytes(input->count, cells, input->hasCoefficients).all();
    tile.memory = plannedMemory(tile.input, *input, evenScene(*input, cells),
                                meansElsewhere(wish.threads, wish.maxMemory));
    tile.seconds = roughSeconds(tile, input->count, wish.threads);
    tile.isKnown = true;
}

void planByScan(TilePlan& tile, const PlanWish& wish, const std::function<void(double share)>& progress) {
    const auto scene = openScene(std::vector<std::string>{tile.input}, wish.scene);
    describe(tile, scene->inputs().front()->input());
    const Means here = chooseMeans(wish.scene.open.threads, wish.maxMemory);
    const Plan plan = measurePlan(tile.input, *scene, here, [&](std::uint64_t splats) {
        progress(static_cast<double>(splats) / static_cast<double>(scene->count));
    });
    tile.splats = plan.measured.splats - plan.measured.leftOut;
    tile.dropped = plan.ledger.droppedInAll();
    tile.leftOut = plan.measured.leftOut;
    tile.cells = plan.measured.cells.size();
    tile.areCellsExact = true;
    tile.outputBytes = plan.bytes.all();
    tile.memory =
        plannedMemory(tile.input, *scene, plan.measured, meansElsewhere(wish.threads, wish.maxMemory));
    tile.seconds = roughSeconds(tile, plan.records(), wish.threads);
    tile.isKnown = true;
    if (plan.measured.leftOut > 0) {
        throw Failure(ExitStatus::splatsLeftOut,
                      fmt::format("{}: {} outside the grid: state bounds that hold them, or convert with "
                                  "--allow-loss",
                                  tile.input, countText(plan.measured.leftOut, "splat lies", "splats lie")));
    }
}

} // namespace

TilePlan planTile(const std::string& input, const PlanWish& wish,
                  const std::function<void(double share)>& progress) {
    TilePlan tile;
    tile.input = input;
    throwIfInterrupted();
    try {
        if (wish.isScanned) {
            planByScan(tile, wish, progress);
        } else {
            planByHeader(tile, wish);
        }
    } catch (const Failure& failure) {
        if (failure.status() == ExitStatus::interrupted) {
            throw;
        }
        tile.status = failure.status();
        tile.line = failure.what();
    }
    return tile;
}

} // namespace Tavrin::SplatProgram
