#include "program/convert/conversion.h"

#include "program/scene/open_scene.h"
#include "program/system/apart.h"
#include "program/system/exit_status.h"
#include "program/system/interrupt.h"
#include "program/system/platform.h"
#include "program/system/processors.h"
#include "program/terminal/figures.h"
#include "reader/verify.h"

#include <fmt/format.h>

#include <algorithm>

namespace Tavrin::SplatProgram {
namespace {

// Resident bytes of a conversion outside its passes, measured (docs/performance.md): code and data of the
// program and the system's libraries, stacks, buffers of files and inputs, and what the allocator keeps of
// the first pass during the second.
constexpr std::uint64_t processBytes = 70 << 17; // 8.75 MiB
constexpr std::uint64_t threadBytes = 256 << 10;

std::uint64_t ownBytes(unsigned threads) {
    return processBytes + threads * threadBytes;
}

// What a large pass may have resident beyond what it allocates: the last huge page, which is not full, and a
// MiB that the allocator keeps of the first pass.
constexpr std::uint64_t mostWaste = std::uint64_t{3} << 20;

std::uint64_t residentBytes(std::uint64_t passes) {
    return passes + std::min(passes / 8, mostWaste);
}

// The most that a pass may allocate to have this many bytes resident: the inverse of residentBytes.
std::uint64_t passBytes(std::uint64_t resident) {
    return std::max(resident / 9 * 8, resident - std::min(resident, mostWaste));
}

[[noreturn]] void refuseForMemory(const std::string& name, std::uint64_t splats, std::uint64_t least,
                                  const Means& means) {
    const std::uint64_t needed =
        means.isMemoryStated ? least : residentBytes(least) + ownBytes(means.threads);
    const std::string what = fmt::format("{}: converting {} takes at least {} of memory", name,
                                         countText(splats, "splat", "splats"), bytesText(needed));
    throw Failure(ExitStatus::doesNotFit,
                  means.isMemoryStated
                      ? fmt::format("{} and --max-memory allows {}: write --max-memory {}", what,
                                    bytesText(means.memory), least)
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

// Calls step() and turns the exceptions of `source` and `stream` into Failures.
template <typename Step>
auto asFailures(const std::string& name, std::uint64_t splats, const Means& means, Step step) {
    try {
        return step();
    } catch (const SplatStream::WriteError& error) {
        throw Failure(
            tellsOfFullDisk(error.code) ? ExitStatus::doesNotFit : ExitStatus::conversionFailed,
            fmt::format("{}: check the disk, its room, and the limits of this process", error.what()));
    } catch (const SplatStream::TooLittleMemory& error) {
        refuseForMemory(name, splats, error.least, means);
    } catch (...) {
        rethrowAsFailure(ExitStatus::conversionFailed);
    }
}

} // namespace

Means chooseMeans(unsigned threads, std::uint64_t maxMemory) {
    Means means;
    means.threads = threads > 0 ? threads : usableProcessors();
    means.freeMemory = availableMemory();
    means.memory = passBytes(means.freeMemory - std::min(means.freeMemory, ownBytes(means.threads)));
    means.isMemoryStated = maxMemory > 0 && maxMemory < means.memory;
    means.memory = means.isMemoryStated ? maxMemory : means.memory;
    return means;
}

Means meansElsewhere(unsigned threads, std::uint64_t maxMemory) {
    Means means;
    means.threads = threads > 0 ? threads : usableProcessors();
    means.freeMemory = UINT64_MAX;
    means.isMemoryStated = maxMemory > 0;
    means.memory = means.isMemoryStated ? maxMemory : UINT64_MAX;
    return means;
}

SplatStream::Measured measureSource(const std::string& name, const SplatSource::Source& source,
                                    const Means& means, const PassProgress& progress) {
    return asFailures(name, source.count, means, [&] {
        SplatStream::Measured measured = SplatStream::measure(source, settingsOf(means, progress));
        source.requireUnchanged();
        return measured;
    });
}

std::uint64_t plannedMemory(const std::string& name, const SplatSource::Source& source,
                            const SplatStream::Measured& measured, const Means& means) {
    return asFailures(name, measured.splats, means, [&] {
        const SplatStream::Settings settings = settingsOf(means, {});
        const std::uint64_t passes = std::max(
            SplatStream::measureMemory(source, measured.occupiedCells, measured.repeatedCells, settings),
            SplatStream::placeMemory(measured, settings));
        const std::uint64_t verification = SplatReader::verifyMemory(measured.splats, measured.cells.size(),
                                                                     measured.hasCoefficients, means.threads);
        return ownBytes(means.threads) + std::max(residentBytes(passes), verification);
    });
}

void writeDataset(const std::string& name, const std::shared_ptr<const SplatSource::Source>& source,
                  const std::shared_ptr<const SplatStream::Measured>& measured,
                  const std::filesystem::path& folder, const Means& means, const PassProgress& progress) {
    const auto write = [name, source, measured, folder, settings = settingsOf(means, progress)] {
        // resolveOutput and openScene have refused names without such a form.
        const std::string inputName = converterPath(pathFromText(name)).value();
        SplatStream::writeDataset(*source, *measured, inputName, folder, settings);
        source->requireUnchanged();
    };
    asFailures(name, measured->splats, means, [&] {
        if (!runApart(write, interrupted)) {
            throwIfInterrupted();
        }
    });
}

} // namespace Tavrin::SplatProgram
