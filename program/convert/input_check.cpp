#include "program/convert/input_check.h"

#include "program/system/platform.h"
#include "program/terminal/figures.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

constexpr std::array<const char*, 3> axes = {"x", "y", "z"};
constexpr double centimetre = 0.01; // in scene units, taken as metres

// The input must be a file of its own: the converter reads it several times, and by position.
void requireReadableFile(const std::string& name) {
    const fs::path path = pathFromText(name);
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (status.type() == fs::file_type::not_found) {
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: there is no such file: check the path", name));
    }
    if (error) {
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: cannot be looked at: {}", name, error.message()));
    }
    if (status.type() == fs::file_type::directory) {
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: is a folder: name the PLY file in it", name));
    }
    if (status.type() != fs::file_type::regular) {
        throw Failure(
            ExitStatus::inputRefused,
            fmt::format("{}: is a pipe or a device: save it as a file first, it is read several times",
                        name));
    }
    if (const std::error_code denied = checkReadable(path)) {
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: cannot be read: {}: check its permissions", name, denied.message()));
    }
    if (!converterPath(path)) {
        throw Failure(
            ExitStatus::inputRefused,
            fmt::format("{}: this system's code page lacks a letter of the path: rename the file, or "
                        "name it from inside its folder",
                        name));
    }
}

std::string atLine(const std::string& name, std::size_t line, const std::string& text) {
    return fmt::format("{}:{}: {}", name, line, text);
}

void checkForm(const std::string& name, const PlyHeader& header, Verdict& verdict) {
    if (header.format != "binary_little_endian") {
        verdict.refuse(
            ExitStatus::inputRefused,
            atLine(name, header.formatLine,
                   fmt::format("the format is {}: export as binary_little_endian", header.format)));
    }
    if (header.endsWithCarriageReturn) {
        verdict.refuse(
            ExitStatus::inputRefused,
            atLine(name, header.lines.size(),
                   "end_header is followed by a carriage return, which hides it from the converter: end "
                   "the header's lines with a line feed alone"));
    }
}

void checkComments(const std::string& name, const SceneComments& comments, Verdict& verdict) {
    for (const HeaderRemark& error : comments.errors) {
        verdict.refuse(ExitStatus::inputRefused, atLine(name, error.line, error.text));
    }
    for (const HeaderRemark& remark : comments.remarks) {
        verdict.warn(atLine(name, remark.line, remark.text));
    }
    const std::optional<Box> bounds = comments.bounds();
    for (std::size_t axis = 0; bounds && axis < axes.size(); ++axis) {
        if (bounds->min[axis] > bounds->max[axis]) {
            verdict.refuse(
                ExitStatus::inputRefused,
                fmt::format("{}: the comments state min{} {} above max{} {}: state all six bounds, or none",
                            name, axes[axis], bounds->min[axis], axes[axis], bounds->max[axis]));
        }
    }
    const bool hasOffset = comments.kept("offsetx", 0.0) != 0.0 || comments.kept("offsety", 0.0) != 0.0 ||
                           comments.kept("offsetz", 0.0) != 0.0;
    if (hasOffset && comments.epsg == 0) {
        verdict.warn(
            fmt::format("{}: an offset is stated without an EPSG code: add a line \"comment epsg CODE\", or "
                        "nobody can place the scene",
                        name));
    }
    for (const auto& [key, number] : comments.numbers) {
        const bool placesScene = key.starts_with("offset") || key.starts_with("shift");
        if (placesScene && std::abs(number.written - number.kept) > centimetre / 2) {
            verdict.warn(atLine(name, number.line,
                                fmt::format("{} {:.12g} is kept in single precision, as {:.12g}: move the "
                                            "difference into the positions, or keep the offset elsewhere",
                                            key, number.written, number.kept)));
        }
    }
}

// False when fewer records are there than declared.
bool checkSize(const std::string& name, const SplatFile& file, Verdict& verdict) {
    const std::uint64_t held = file.size - std::min(file.size, file.bodyAt);
    const std::uint64_t recordBytes = file.layout.recordBytes();
    if (file.records > held / recordBytes) {
        const std::uint64_t rest = held % recordBytes;
        const std::string part =
            rest > 0 ? fmt::format(" and {} of another", countText(rest, "byte", "bytes")) : std::string();
        verdict.refuse(
            ExitStatus::inputRefused,
            fmt::format(
                "{}: the file is cut: it declares {} of {} bytes and holds {}{}: copy or export it again",
                name, countText(file.records, "record", "records"), recordBytes,
                countText(held / recordBytes), part));
        return false;
    }
    if (const std::uint64_t extra = held - file.records * recordBytes; extra > 0) {
        verdict.warn(
            fmt::format("{}: {} after the last record are left out: if they are splats, correct the count in "
                        "the element line",
                        name, countText(extra, "byte", "bytes")));
    }
    return true;
}

std::optional<PlyHeader> readHeader(const std::string& name, Verdict& verdict) {
    try {
        return readPlyHeader(pathFromText(name));
    } catch (const Failure& failure) {
        verdict.refuse(failure.status(), failure.what());
        return std::nullopt;
    }
}

} // namespace

std::optional<InputFacts> checkInput(const std::string& name, Verdict& verdict) {
    requireReadableFile(name);
    const std::optional<PlyHeader> header = readHeader(name, verdict);
    if (!header) {
        return std::nullopt;
    }
    checkForm(name, *header, verdict);
    const LayoutResult layout = splatLayoutOf(*header);
    if (layout.problem) {
        verdict.refuse(ExitStatus::inputRefused, atLine(name, layout.problem->line, layout.problem->text));
        return std::nullopt;
    }
    InputFacts facts;
    facts.name = name;
    facts.file = {pathFromText(name), header->length, fs::file_size(pathFromText(name)),
                  header->elements.front().count, layout.layout};
    facts.comments = readSceneComments(*header, layout.layout.hasCoefficients());
    checkComments(name, facts.comments, verdict);
    if (facts.file.records == 0) {
        verdict.refuse(ExitStatus::inputRefused, atLine(name, header->elements.front().line,
                                                        "the file declares no splats: export it again"));
        return std::nullopt;
    }
    const bool isWhole = checkSize(name, facts.file, verdict);
    const bool isReadable =
        isWhole && header->format == "binary_little_endian" && !header->endsWithCarriageReturn;
    return isReadable ? std::optional(std::move(facts)) : std::nullopt;
}

namespace {

// Bounds to state for a scene: the measured box, widened where the converter would not take it for one.
std::string boundsAdvice(const Box& box) {
    constexpr double leastMin = 0.01; // |minx| above 0.001 counts
    constexpr double leastMax = 0.2;  // |maxx| above 0.1 counts
    const double minx = std::abs(box.min[0]) < leastMin ? -leastMin : box.min[0];
    const double maxx = std::abs(box.max[0]) < leastMax ? leastMax : box.max[0];
    std::string advice;
    const std::array<double, 3> mins = {minx, box.min[1], box.min[2]};
    const std::array<double, 3> maxs = {maxx, box.max[1], box.max[2]};
    for (std::size_t axis = 0; axis < axes.size(); ++axis) {
        // Nine digits give every single-precision value exactly.
        advice += fmt::format(", \"comment min{} {:.9g}\"", axes[axis], mins[axis]);
    }
    for (std::size_t axis = 0; axis < axes.size(); ++axis) {
        advice += fmt::format(", \"comment max{} {:.9g}\"", axes[axis], maxs[axis]);
    }
    return advice.substr(2);
}

} // namespace

void remarkBounds(const InputFacts& input, const SceneExtent& extent, std::uint64_t leftOut,
                  Verdict& verdict) {
    if (extent.notFinite > 0) {
        verdict.warn(fmt::format("{}: {} at no finite position: remove them before the conversion",
                                 input.name, countText(extent.notFinite, "splat stands", "splats stand")));
    }
    const std::string loss = leftOut > 0 ? fmt::format(" and {} left out of the dataset",
                                                       countText(leftOut, "splat is", "splats are"))
                                         : "";
    const std::optional<Box> bounds = input.comments.bounds();
    if (!bounds && !input.file.layout.hasCoefficients()) {
        verdict.warn(
            fmt::format("{}: the records have 17 floats and the comments state no usable bounds, so the "
                        "converter measures the box with the wrong record size{}: add {}",
                        input.name, loss, boundsAdvice(extent.box)));
    } else if (bounds && extent.outside > 0) {
        verdict.warn(fmt::format("{}: {} outside the bounds that the comments state{}: state {}", input.name,
                                 countText(extent.outside, "splat lies", "splats lie"), loss,
                                 boundsAdvice(extent.box)));
    } else if (leftOut > 0) {
        verdict.warn(fmt::format("{}: the box has no usable grid{}: state bounds that hold the scene",
                                 input.name, loss));
    }
}

Point positionSteps(const Box& box) {
    Point steps = {};
    for (std::size_t axis = 0; axis < steps.size(); ++axis) {
        const auto largest = static_cast<float>(std::max(std::abs(box.min[axis]), std::abs(box.max[axis])));
        steps[axis] =
            std::isfinite(largest) ? double{std::nextafter(largest, INFINITY)} - double{largest} : 0.0;
    }
    return steps;
}

void remarkPrecision(const InputFacts& input, const SceneExtent& extent, Verdict& verdict) {
    const Point steps = positionSteps(extent.box);
    const std::size_t worst = static_cast<std::size_t>(std::ranges::max_element(steps) - steps.begin());
    if (steps[worst] > centimetre) {
        verdict.warn(fmt::format(
            "{}: {} reaches {:.9g}, where single precision steps by {:.3g}: subtract an offset "
            "from the positions and state it in comment lines",
            input.name, axes[worst],
            std::max(std::abs(extent.box.min[worst]), std::abs(extent.box.max[worst])), steps[worst]));
    }
}

} // namespace Tavrin::SplatProgram
