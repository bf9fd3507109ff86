#include "program/convert/plan_text.h"

#include "program/scene/open_scene.h"
#include "program/system/platform.h"
#include "program/terminal/figures.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace Tavrin::SplatProgram {
namespace {

std::string row(const char* name, const std::string& value) {
    return fmt::format("{:<16}{}\n", name, value);
}

std::string pointText(const Point& point, const char* format) {
    return fmt::format("x {}, y {}, z {}", fmt::format(fmt::runtime(format), point[0]),
                       fmt::format(fmt::runtime(format), point[1]),
                       fmt::format(fmt::runtime(format), point[2]));
}

std::string cellsText(const Plan& plan) {
    const std::uint64_t cells = plan.measured.cells.size();
    if (plan.grid.oneCell) {
        return "1 (up to 1,000,000 splats are one cell)";
    }
    if (!plan.grid.countable()) {
        return "none: the grid is too wide";
    }
    return fmt::format("{} of {} x {} ({:g} x {:g} units each), the fullest with {}", countText(cells),
                       countText(static_cast<std::uint64_t>(plan.grid.countX)),
                       countText(static_cast<std::uint64_t>(plan.grid.countY)), plan.grid.cellSizeX,
                       plan.grid.cellSizeY, countText(plan.largestCell, "splat", "splats"));
}

// The two layouts of the canonical records.
std::uint32_t recordFloats(const Plan& plan) {
    return static_cast<std::uint32_t>(GaussionSplat::recordLayout(plan.hasCoefficients()).floats);
}

// The dataset has the highest degree of its inputs.
int degreeOf(const Plan& plan) {
    return *std::ranges::max_element(plan.degrees);
}

std::string kindsText(const Plan& plan) {
    std::string text;
    for (const std::string& kind : plan.kinds) {
        const bool isKnown = text.find(kind) != std::string::npos;
        text += isKnown ? "" : (text.empty() ? "" : "; ") + kind;
    }
    return text;
}

nlohmann::ordered_json droppedJson(const SplatSource::Ledger& ledger) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    for (std::size_t i = 0; i < SplatSource::dropReasons; ++i) {
        json[SplatSource::nameOf(static_cast<SplatSource::DropReason>(i))] = ledger.dropped[i];
    }
    return json;
}

std::string boxText(const Plan& plan) {
    return fmt::format("({:g}, {:g}, {:g}) to ({:g}, {:g}, {:g}), {}", plan.box.min[0], plan.box.min[1],
                       plan.box.min[2], plan.box.max[0], plan.box.max[1], plan.box.max[2],
                       plan.isBoxMeasured          ? "measured"
                       : plan.measured.isBoxStated ? "as stated"
                                                   : "measured by the converter, the origin always in it");
}

} // namespace

std::string planText(const Plan& plan, const OutputPlace& output) {
    std::string text;
    text += row("input", plan.input);
    text += row("kind", kindsText(plan));
    text += row("output", textFromPath(output.folder));
    text += row("records", fmt::format("{} of {} floats ({} bytes)", countText(plan.records()),
                                       recordFloats(plan), recordFloats(plan) * sizeof(float)));
    text += row("degree", fmt::format("{} of the spherical harmonics", degreeOf(plan)));
    text += row("box", boxText(plan));
    text += row("cells", cellsText(plan));
    const std::string dropped = droppedText(plan.ledger);
    text += row("dropped", dropped.empty() ? "0 splats" : dropped);
    if (!plan.cropAdvice.empty()) {
        text += row("far off", "splats lie far from the others; to leave them out: " + plan.cropAdvice);
    }
    text += row("left out", countText(plan.measured.leftOut, "splat", "splats"));
    text += row("data.bin", countText(plan.bytes.data, "byte", "bytes"));
    if (plan.hasCoefficients()) {
        text += row("shcoef.bin", countText(plan.bytes.coefficients, "byte", "bytes"));
    }
    text += row("index.bin", countText(plan.bytes.index, "byte", "bytes"));
    text += row("meta document", "at most " + countText(plan.metaBytesAtMost, "byte", "bytes"));
    text += row("log.txt", "at most " + countText(plan.logBytesAtMost, "byte", "bytes"));
    text += row("disk", fmt::format("{}, {} are free", bytesText(plan.diskBytes), bytesText(plan.freeDisk)));
    text += row("peak memory",
                fmt::format("{}, {} are free", bytesText(plan.memory), bytesText(plan.freeMemory)));
    text += row("offset", plan.offset);
    text += row("position steps", pointText(plan.positionStep, "{:.3g}") + " units");
    text += row("scale steps", pointText(plan.scaleStep, "{:.3g}") + " units");
    return text;
}

std::string planJson(const Plan& plan, const OutputPlace& output, const std::vector<std::string>& warnings) {
    nlohmann::ordered_json json;
    json["input"] = plan.input;
    json["output"] = textFromPath(output.folder);
    json["records"] = plan.records();
    json["recordFloats"] = recordFloats(plan);
    json["recordBytes"] = recordFloats(plan) * sizeof(float);
    json["degree"] = degreeOf(plan);
    json["box"] = {{"min", plan.box.min},
                   {"max", plan.box.max},
                   {"measured", plan.isBoxMeasured || !plan.measured.isBoxStated}};
    json["cells"] = plan.measured.cells.size();
    json["indexBytes"] = plan.bytes.index;
    json["largestCell"] = plan.largestCell;
    json["kinds"] = plan.kinds;
    json["read"] = plan.ledger.read;
    json["dropped"] = droppedJson(plan.ledger);
    json["leftOut"] = plan.measured.leftOut;
    json["cropAdvice"] =
        plan.cropAdvice.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(plan.cropAdvice);
    json["offset"] = plan.offsets;
    json["largestPositionError"] = plan.largestError;
    json["dataBytes"] = plan.bytes.data;
    json["shcoefBytes"] = plan.bytes.coefficients;
    json["metaBytesAtMost"] = plan.metaBytesAtMost;
    json["logBytesAtMost"] = plan.logBytesAtMost;
    json["diskBytes"] = plan.diskBytes;
    json["freeDiskBytes"] = plan.freeDisk;
    json["memoryBytes"] = plan.memory;
    json["freeMemoryBytes"] = plan.freeMemory;
    json["positionSteps"] = plan.positionStep;
    json["scaleSteps"] = plan.scaleStep;
    json["warnings"] = warnings;
    // Paths may contain bytes that are not UTF-8; they are replaced.
    return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

} // namespace Tavrin::SplatProgram
