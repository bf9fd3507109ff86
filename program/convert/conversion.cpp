#include "program/convert/conversion.h"

#include "program/system/exit_status.h"
#include "program/system/interrupt.h"
#include "program/system/platform.h"
#include "program/system/processors.h"
#include "program/terminal/figures.h"
#include "source/canonical_ply.h"

#include <fmt/format.h>

#include <algorithm>

namespace Tavrin::SplatProgram {
namespace {

// Bytes of the program that no pass allocates: code, stacks, buffers of files.
constexpr std::uint64_t ownBytes = 16 << 20;

// As the library's header reader leaves them.
GaussionSplat::Params paramsOf(const InputFacts& input) {
    const SceneComments& comments = input.comments;
    GaussionSplat::Params params;
    const auto take = [&](const char* key, double& field) { field = comments.kept(key, field); };
    take("minx", params.minx);
    take("miny", params.miny);
    take("minz", params.minz);
    take("maxx", params.maxx);
    take("maxy", params.maxy);
    take("maxz", params.maxz);
    take("offsetx", params.offsetx);
    take("offsety", params.offsety);
    take("offsetz", params.offsetz);
    take("shiftx", params.shiftx);
    take("shifty", params.shifty);
    take("shiftz", params.shiftz);
    take("scalex", params.scalex);
    take("scaley", params.scaley);
    take("scalez", params.scalez);
    params.epsg = comments.epsg;
    params.source = comments.source;
    params.dataType = !comments.dataType.empty() ? comments.dataType : input.areBoundsSeen ? "ytr" : "ply";
    return params;
}

[[noreturn]] void failAsChanged(const std::string& name) {
    throw Failure(ExitStatus::conversionFailed,
                  fmt::format("{}: the file was written to while it was converted: convert it again", name));
}

[[noreturn]] void refuseForMemory(const std::string& name, std::uint64_t splats, std::uint64_t least,
                                  const Means& means) {
    const std::string what = fmt::format("{}: converting {} takes at least {} of memory", name,
                                         countText(splats, "splat", "splats"), bytesText(least));
    throw Failure(
        ExitStatus::inputRefused,
        means.isMemoryStated
            ? fmt::format("{} and --max-memory allows {}: allow as much", what, bytesText(means.memory))
            : fmt::format("{} and {} are free: close other programs, or cut the scene into smaller "
                          "files",
                          what, bytesText(means.freeMemory)));
}

SplatStream::Settings settingsOf(const Means& means, const PassProgress& progress) {
    SplatStream::Settings settings;
    settings.threads = means.threads;
    settings.maxMemory = means.memory;
    settings.progress = [progress](std::uint64_t splats) {
        throwIfInterrupted();
        progress(splats);
    };
    return settings;
}

// Calls step(), with what the streams throw as failures of this program.
template <typename Step>
auto asFailures(const std::string& name, std::uint64_t splats, const Means& means, Step step) {
    try {
        return step();
    } catch (const SplatSource::SourceError& error) {
        throw Failure(ExitStatus::inputRefused, error.what());
    } catch (const SplatSource::SourceChanged& error) {
        throw Failure(ExitStatus::conversionFailed, error.what());
    } catch (const SplatStream::WriteError& error) {
        throw Failure(
            ExitStatus::conversionFailed,
            fmt::format("{}: check the disk, its room, and the limits of this process", error.what()));
    } catch (const SplatStream::TooLittleMemory& error) {
        refuseForMemory(name, splats, error.least, means);
    }
}

} // namespace

Means chooseMeans(unsigned threads, std::uint64_t maxMemory) {
    Means means;
    means.threads = threads > 0 ? threads : usableProcessors();
    means.freeMemory = availableMemory();
    means.memory = means.freeMemory - std::min(means.freeMemory, ownBytes);
    means.isMemoryStated = maxMemory > 0 && maxMemory < means.memory;
    means.memory = means.isMemoryStated ? maxMemory : means.memory;
    return means;
}

std::unique_ptr<SplatSource::Source> openSource(const InputFacts& input) {
    SplatSource::CanonicalPlyFacts facts;
    facts.bodyAt = input.file.bodyAt;
    facts.count = input.file.records;
    facts.hasCoefficients = input.file.layout.hasCoefficients();
    facts.params = paramsOf(input);
    facts.boundsSeen = input.areBoundsSeen;
    try {
        auto source = std::make_unique<SplatSource::CanonicalPly>(input.file.path, facts);
        // The source knows what happens from now on, the stamp what happened since the header was read.
        if (stampOf(input.file.path) != input.stamp) {
            failAsChanged(input.name);
        }
        return source;
    } catch (const SplatSource::SourceError& error) {
        throw Failure(ExitStatus::inputRefused, error.what());
    }
}

SplatStream::Measured measureSource(const std::string& name, const SplatSource::Source& source,
                                    const Means& means, const PassProgress& progress) {
    return asFailures(name, source.count, means, [&] {
        SplatStream::Measured measured = SplatStream::measure(source, settingsOf(means, progress));
        source.requireUnchanged();
        return measured;
    });
}

std::uint64_t memoryToPlace(const std::string& name, const SplatStream::Measured& measured,
                            const Means& means) {
    return asFailures(name, measured.splats, means,
                      [&] { return SplatStream::placeMemory(measured, settingsOf(means, {})); });
}

void writeDataset(const std::string& name, const SplatSource::Source& source,
                  const SplatStream::Measured& measured, const std::filesystem::path& folder,
                  const Means& means, const PassProgress& progress) {
    asFailures(name, measured.splats, means, [&] {
        // Both were found to have such a form when they were checked.
        const std::string inputName = converterPath(pathFromText(name)).value();
        SplatStream::writeDataset(source, measured, inputName, folder, settingsOf(means, progress));
        source.requireUnchanged();
    });
}

} // namespace Tavrin::SplatProgram
