#include "program/convert/plan.h"

#include "program/convert/plan_remarks.h"
#include "program/convert/text_sizes.h"
#include "program/scene/crop_advice.h"
#include "program/scene/open_scene.h"
#include "program/system/exit_status.h"
#include "program/system/platform.h"
#include "program/terminal/figures.h"
#include "reader/format.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace Tavrin::SplatProgram {
namespace {

constexpr std::uint64_t textBytes = 1 << 20; // room for meta document, log and folder

// The bytes that a dataset takes on the disk. Throws a Failure (DoesNotFit) when fewer are free.
std::uint64_t requireDisk(const DatasetBytes& bytes, std::uint64_t free, const OutputPlace& output) {
    const std::uint64_t needed = bytes.all() + textBytes;
    if (needed > free) {
        throw Failure(
            ExitStatus::doesNotFit,
            fmt::format("{}: the dataset needs {} and {} are free at {}: make room, or choose another disk",
                        output.name, bytesText(needed), bytesText(free), textFromPath(output.foundation)));
    }
    return needed;
}

std::uint64_t freeDisk(const OutputPlace& output, Warnings& warnings) {
    std::error_code error;
    const std::filesystem::space_info space = std::filesystem::space(output.foundation, error);
    if (error) {
        warnings.add(fmt::format("{}: the free space is not known: {}", output.name, error.message()));
        return UINT64_MAX;
    }
    return space.available;
}

Point pointOf(const GaussionSplat::Vector3& vector) {
    return {vector.x, vector.y, vector.z};
}

// Otherwise the meta document would contain inf, which is not JSON, and all splats would be in one cell.
void requireFiniteBox(const Plan& plan) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        if (!std::isfinite(plan.box.min[axis]) || !std::isfinite(plan.box.max[axis])) {
            throw Failure(
                ExitStatus::inputRefused,
                fmt::format("{}: a splat lies at infinity on the {} axis: remove it, or state the bounds "
                            "of the scene in comment lines",
                            plan.input, "xyz"[axis]));
        }
    }
}

void addFacts(Plan& plan, const SplatSource::Scene& scene) {
    plan.ledger = scene.ledger();
    for (const auto& input : scene.inputs()) {
        plan.kinds.push_back(input->input().kind);
        plan.degrees.push_back(input->input().degree);
    }
    plan.isBoxMeasured = plan.measured.isBoxStated && (plan.measured.params.minx != scene.params.minx ||
                                                       plan.measured.params.maxx != scene.params.maxx);
    plan.offset = offsetText(scene, plan.extent);
    plan.move = scene.inputs().size() == 1 ? scene.moveOf(0) : Point{};
    plan.largestError = scene.errorWithin(plan.extent);
    plan.offsets = {scene.params.offsetx, scene.params.offsety, scene.params.offsetz};
}

} // namespace

DatasetBytes datasetBytes(std::uint64_t splats, std::uint64_t cells, bool hasCoefficients) {
    namespace Format = SplatReader::Format;
    return {.data = splats * Format::recordSize,
            .coefficients = hasCoefficients ? splats * Format::packedCoefficientSize : 0,
            .index = cells * (Format::indexKeySize + Format::indexLevelSize)};
}

SplatReader::Grid gridOf(std::uint64_t splats, const Box& box) {
    SplatReader::Meta meta;
    meta.totalSplats = splats;
    meta.boundingMin = box.min;
    meta.boundingMax = box.max;
    const SplatReader::CellLengths lengths = SplatReader::expectedCellLengths(splats, box.min, box.max);
    meta.cellLengthX = lengths.x;
    meta.cellLengthY = lengths.y;
    return SplatReader::gridOf(meta);
}

Plan measurePlan(const std::string& input, const SplatSource::Scene& scene, const Means& means,
                 const PassProgress& progress) {
    Plan plan;
    plan.input = input;
    plan.measured = measureSource(input, scene, means, progress);
    requireAccepted(scene);
    plan.extent = extentOf(plan.measured);
    addFacts(plan, scene);
    plan.cropAdvice = cropAdvice(scene, plan.extent);
    const SplatStream::Measured& measured = plan.measured;
    plan.box = {pointOf(measured.bboxMin), pointOf(measured.bboxMax)};
    requireFiniteBox(plan);
    plan.grid = gridOf(measured.splats, plan.box);
    for (const SplatStream::Cell& cell : measured.cells) {
        plan.largestCell = std::max(plan.largestCell, cell.splats);
    }
    plan.memory = plannedMemory(input, scene, measured, means);
    plan.freeMemory = means.freeMemory;
    plan.bytes =
        datasetBytes(measured.splats - measured.leftOut, measured.cells.size(), measured.hasCoefficients);
    plan.positionStep = positionSteps(plan.extent);
    const GaussionSplat::AttributeRange& scale = measured.bounding.scale;
    const Point smallest = pointOf(scale.min);
    const Point largest = pointOf(scale.max);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        plan.scaleStep[axis] = (largest[axis] - smallest[axis]) / SplatReader::Format::wordFactor;
    }
    return plan;
}

Plan makePlan(const std::string& input, const SplatSource::Scene& scene, const OutputPlace& output,
              const Means& means, Warnings& warnings, const PassProgress& progress) {
    const std::uint64_t free = freeDisk(output, warnings);
    // A first check by the header's count, so that a dataset too large for the disk is refused before the
    // whole input is read.
    requireDisk(datasetBytes(scene.count, 0, scene.hasCoefficients), free, output);
    Plan plan = measurePlan(input, scene, means, progress);
    for (const std::string& remark : scene.laterRemarks()) {
        warnings.add(remark);
    }
    plan.freeDisk = free;
    plan.diskBytes = requireDisk(plan.bytes, free, output);
    plan.metaBytesAtMost = metaBytesAtMost(plan);
    plan.logBytesAtMost = logBytesAtMost(plan, output);
    remarkPlan(plan, warnings);
    return plan;
}

} // namespace Tavrin::SplatProgram
