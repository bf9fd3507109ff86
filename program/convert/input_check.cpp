#include "program/convert/input_check.h"

#include "program/system/exit_status.h"
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

void checkForm(const std::string& name, const PlyHeader& header) {
    if (header.format != "binary_little_endian") {
        throw Failure(ExitStatus::inputRefused,
                      atLine(name, header.formatLine,
                             fmt::format("the format is {}: export as binary_little_endian", header.format)));
    }
    if (header.endsWithCarriageReturn) {
        throw Failure(
            ExitStatus::inputRefused,
            atLine(name, header.lines.size(),
                   "end_header is followed by a carriage return, which hides it from the converter: end "
                   "the header's lines with a line feed alone"));
    }
}

void checkComments(const std::string& name, const SceneComments& comments, Warnings& warnings) {
    if (!comments.errors.empty()) {
        const HeaderRemark& error = comments.errors.front();
        throw Failure(ExitStatus::inputRefused, atLine(name, error.line, error.text));
    }
    for (const HeaderRemark& remark : comments.remarks) {
        warnings.add(atLine(name, remark.line, remark.text));
    }
    const std::optional<Box> bounds = comments.bounds();
    for (std::size_t axis = 0; bounds && axis < axes.size(); ++axis) {
        if (bounds->min[axis] > bounds->max[axis]) {
            throw Failure(
                ExitStatus::inputRefused,
                fmt::format("{}: the comments state min{} {} above max{} {}: state all six bounds, or none",
                            name, axes[axis], bounds->min[axis], axes[axis], bounds->max[axis]));
        }
    }
    const bool hasOffset = comments.kept("offsetx", 0.0) != 0.0 || comments.kept("offsety", 0.0) != 0.0 ||
                           comments.kept("offsetz", 0.0) != 0.0;
    if (hasOffset && comments.epsg == 0) {
        warnings.add(
            fmt::format("{}: an offset is stated without an EPSG code: add a line \"comment epsg CODE\", or "
                        "nobody can place the scene",
                        name));
    }
    for (const auto& [key, number] : comments.numbers) {
        const bool placesScene = key.starts_with("offset") || key.starts_with("shift");
        if (placesScene && std::abs(number.written - number.kept) > centimetre / 2) {
            warnings.add(atLine(name, number.line,
                                fmt::format("{} {:.12g} is kept in single precision, as {:.12g}: move the "
                                            "difference into the positions, or keep the offset elsewhere",
                                            key, number.written, number.kept)));
        }
    }
}

void checkSize(const std::string& name, const SplatFile& file, Warnings& warnings) {
    const std::uint64_t held = file.size - std::min(file.size, file.bodyAt);
    const std::uint64_t recordBytes = file.layout.recordBytes();
    if (file.records > held / recordBytes) {
        const std::uint64_t rest = held % recordBytes;
        const std::string part =
            rest > 0 ? fmt::format(" and {} of another", countText(rest, "byte", "bytes")) : std::string();
        throw Failure(
            ExitStatus::inputRefused,
            fmt::format(
                "{}: the file is cut: it declares {} of {} bytes and holds {}{}: copy or export it again",
                name, countText(file.records, "record", "records"), recordBytes,
                countText(held / recordBytes), part));
    }
    if (const std::uint64_t extra = held - file.records * recordBytes; extra > 0) {
        warnings.add(
            fmt::format("{}: {} after the last record are left out: if they are splats, correct the count in "
                        "the element line",
                        name, countText(extra, "byte", "bytes")));
    }
}

} // namespace

FileStamp stampOf(const std::filesystem::path& file) {
    std::error_code error;
    FileStamp stamp;
    stamp.identity = identityOf(file);
    stamp.size = fs::file_size(file, error);
    stamp.time = fs::last_write_time(file, error);
    return stamp;
}

InputFacts checkInput(const std::string& name, Warnings& warnings) {
    requireReadableFile(name);
    InputFacts facts;
    facts.name = name;
    facts.stamp = stampOf(pathFromText(name));
    const PlyHeader header = readPlyHeader(pathFromText(name));
    checkForm(name, header);
    const LayoutResult layout = splatLayoutOf(header);
    if (layout.problem) {
        throw Failure(ExitStatus::inputRefused, atLine(name, layout.problem->line, layout.problem->text));
    }
    facts.file = {pathFromText(name), header.length, facts.stamp.size, header.elements.front().count,
                  layout.layout};
    facts.comments = readSceneComments(header, layout.layout.hasCoefficients());
    facts.areBoundsSeen = facts.comments.numbers.contains("minx") || facts.comments.numbers.contains("maxx");
    checkComments(name, facts.comments, warnings);
    if (facts.file.records == 0) {
        throw Failure(ExitStatus::inputRefused, atLine(name, header.elements.front().line,
                                                       "the file declares no splats: export it again"));
    }
    checkSize(name, facts.file, warnings);
    return facts;
}

} // namespace Tavrin::SplatProgram
