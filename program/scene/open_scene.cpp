#include "program/scene/open_scene.h"

#include "program/system/interrupt.h"
#include "program/system/platform.h"
#include "program/terminal/figures.h"
#include "source/scratch_file.h"

#include <fmt/format.h>

#include <array>
#include <filesystem>
#include <optional>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;
using SplatSource::DropReason;

constexpr std::array<const char*, 3> axes = {"x", "y", "z"};

// An input must be a regular file, since it is read several times and by position.
void requireReadableFile(const std::string& name) {
    const fs::path path = pathFromText(name);
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    const auto refuse = [&](const std::string& what) {
        throw Failure(ExitStatus::inputRefused, fmt::format("{}: {}", name, what));
    };
    if (status.type() == fs::file_type::not_found) {
        refuse("there is no such file: check the path");
    }
    if (error) {
        refuse(fmt::format("cannot be inspected: {}: check the path and its permissions", error.message()));
    }
    if (status.type() == fs::file_type::directory) {
        refuse("is a folder: name the file in it");
    }
    if (status.type() != fs::file_type::regular) {
        refuse("is a pipe or a device: save it as a file first, because it is read several times");
    }
    if (const std::error_code denied = checkReadable(path)) {
        refuse(fmt::format("cannot be read: {}: check its permissions", denied.message()));
    }
    if (!converterPath(path)) {
        refuse("this system's code page lacks a letter of the path: rename the file, or name it from inside "
               "its folder");
    }
}

// Throws a Failure (InputRefused) when a stated minimum is above its maximum.
void checkBounds(const SplatSource::Input& input) {
    const std::optional<SplatSource::Box> bounds = input.stated.bounds();
    for (std::size_t axis = 0; bounds && axis < axes.size(); ++axis) {
        if (bounds->min[axis] > bounds->max[axis]) {
            throw Failure(ExitStatus::inputRefused,
                          fmt::format("{}: the comments state min{} {} above max{} {}: state all six "
                                      "bounds, or none",
                                      input.name, axes[axis], bounds->min[axis], axes[axis],
                                      bounds->max[axis]));
        }
    }
}

[[noreturn]] void refuseEmpty(const std::string& names) {
    throw Failure(ExitStatus::inputRefused,
                  fmt::format("{}: the file declares no splats: there is nothing to convert", names));
}

// Adds remarks about the header's comments.
void checkComments(SplatSource::Scene& scene) {
    for (const auto& kept : scene.inputs()) {
        const SplatSource::Input& input = kept->input();
        for (const SplatSource::HeaderRemark& remark : input.stated.remarks) {
            scene.remarks.push_back(fmt::format("{}:{}: {}", input.name, remark.line, remark.text));
        }
        checkBounds(input);
    }
    const GaussionSplat::Params& params = scene.params;
    const bool hasOffset = params.offsetx != 0.0 || params.offsety != 0.0 || params.offsetz != 0.0;
    if (hasOffset && params.epsg == 0) {
        scene.remarks.push_back(fmt::format(
            "{}: {} without an EPSG code, so nobody can tell where the scene lies: {}",
            scene.inputs().front()->input().name,
            scene.isOffsetChosen ? "the coordinates are those of a reference system" : "an offset is stated",
            "give --epsg CODE, or add a line \"comment epsg CODE\""));
    }
}

} // namespace

std::unique_ptr<SplatSource::Scene> openScene(const std::vector<std::string>& names,
                                              SplatSource::SceneOptions options) {
    options.open.pause = throwIfInterrupted;
    std::vector<fs::path> paths;
    for (const std::string& name : names) {
        requireReadableFile(name);
        paths.push_back(pathFromText(name));
    }
    try {
        std::unique_ptr<SplatSource::Scene> scene = SplatSource::openScene(paths, options);
        checkComments(*scene);
        if (scene->count == 0) {
            refuseEmpty(namesText(names));
        }
        return scene;
    } catch (...) {
        rethrowAsFailure(ExitStatus::conversionFailed);
    }
}

std::unique_ptr<SplatSource::Input> openHeader(const std::string& name) {
    requireReadableFile(name);
    try {
        std::unique_ptr<SplatSource::Input> input = SplatSource::openHeader(pathFromText(name));
        checkBounds(*input);
        if (input->count == 0) {
            refuseEmpty(name);
        }
        return input;
    } catch (...) {
        rethrowAsFailure(ExitStatus::inputRefused);
    }
}

void rethrowAsFailure(ExitStatus changed) {
    try {
        throw;
    } catch (const SplatSource::SourceError& error) {
        throw Failure(ExitStatus::inputRefused, error.what());
    } catch (const SplatSource::SourceChanged& error) {
        throw Failure(changed, error.what());
    } catch (const SplatSource::ScratchError& error) {
        throw Failure(tellsOfFullDisk(error.code) ? ExitStatus::doesNotFit : ExitStatus::outputRefused,
                      error.what());
    }
}

void requireAccepted(const SplatSource::Scene& scene) {
    try {
        scene.requireAccepted();
    } catch (const SplatSource::SourceError& error) {
        throw Failure(ExitStatus::inputRefused, error.what());
    }
    if (scene.ledger().kept == 0) {
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: every splat is dropped ({}): there is nothing to convert",
                                  scene.inputs().front()->input().name, droppedText(scene.ledger())));
    }
}

std::string droppedText(const SplatSource::Ledger& ledger) {
    constexpr std::array<const char*, SplatSource::dropReasons> texts = {
        "invalid", "outside the crop", "below the least opacity", "above the largest scale"};
    std::string reasons;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        if (ledger.dropped[i] > 0) {
            const std::string what = DropReason{static_cast<int>(i)} == DropReason::invalid
                                         ? fmt::format(" ({})", SplatSource::invalidText(ledger))
                                         : std::string();
            reasons += fmt::format("{}{} {}{}", reasons.empty() ? "" : ", ", countText(ledger.dropped[i]),
                                   texts[i], what);
        }
    }
    return reasons.empty()
               ? reasons
               : fmt::format("{}: {}",
                             countText(ledger.droppedInAll(), "splat is dropped", "splats are dropped"),
                             reasons);
}

std::string offsetNumbers(const std::array<double, 3>& offset) {
    // A dataset keeps single precision; this is the shortest text of each number in it.
    return fmt::format("{}, {}, {}", static_cast<float>(offset[0]), static_cast<float>(offset[1]),
                       static_cast<float>(offset[2]));
}

std::string offsetText(const SplatSource::Scene& scene, const SplatSource::Box& extent) {
    const GaussionSplat::Params& params = scene.params;
    std::string text = fmt::format("({})", offsetNumbers({params.offsetx, params.offsety, params.offsetz}));
    text += scene.isOffsetChosen ? ", chosen" : scene.isOffsetCut ? ", cut to whole numbers" : "";
    if (scene.isExact) {
        return text + "; positions are kept bit for bit";
    }
    text += fmt::format("; positions are off by at most {:.2g} mm", scene.errorWithin(extent) * 1000);
    return text + (scene.bulk
                       ? fmt::format(", the bulk of them by {:.2g} mm", scene.errorWithin(*scene.bulk) * 1000)
                       : std::string());
}

SplatSource::Box extentOf(const SplatStream::Measured& measured) {
    const GaussionSplat::Vector3& min = measured.positionMin;
    const GaussionSplat::Vector3& max = measured.positionMax;
    return {{min.x, min.y, min.z}, {max.x, max.y, max.z}};
}

std::string namesText(const std::vector<std::string>& names) {
    return names.size() == 1 ? names.front()
                             : fmt::format("{} and {} more", names.front(), countText(names.size() - 1));
}

} // namespace Tavrin::SplatProgram
