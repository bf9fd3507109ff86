#include "program/commands/normalise_command.h"

#include "program/commands/input_options.h"
#include "program/convert/conversion.h"
#include "program/scene/open_scene.h"
#include "program/system/exit_status.h"
#include "program/system/interrupt.h"
#include "program/system/partial_file.h"
#include "program/system/platform.h"
#include "program/terminal/console.h"
#include "program/terminal/figures.h"
#include "program/terminal/progress.h"
#include "source/canonical_header.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t windowRecords = 4096; // read and written at a time

struct NormaliseOptions {
    std::vector<std::string> words; // the inputs, then the file to write
    InputOptions input;
    bool force = false;
    bool quiet = false;
};

void requireOther(const std::string& output, const std::vector<std::string>& inputs) {
    for (const std::string& input : inputs) {
        const auto identity = identityOf(pathFromText(input));
        if (identity && identity == identityOf(pathFromText(output))) {
            throw Failure(ExitStatus::outputRefused,
                          fmt::format("{}: is an input itself: choose another name", output));
        }
    }
}

double shareOf(std::uint64_t records, const SplatSource::Scene& scene) {
    return static_cast<double>(records) / static_cast<double>(scene.count);
}

void writeRecords(const SplatSource::Scene& scene, const std::string& header, const fs::path& path,
                  Progress& progress) {
    std::ofstream file(path, std::ios::binary | std::ios::app);
    file.write(header.data(), static_cast<std::streamsize>(header.size()));
    const std::size_t floats = GaussionSplat::recordLayout(scene.hasCoefficients).floats;
    std::vector<float> records(windowRecords * floats);
    for (std::uint64_t first = 0; first < scene.count && file; first += windowRecords) {
        throwIfInterrupted();
        const std::uint64_t size = std::min(windowRecords, scene.count - first);
        const std::uint64_t kept = scene.read(first, size, records.data());
        file.write(reinterpret_cast<const char*>(records.data()),
                   static_cast<std::streamsize>(kept * floats * sizeof(float)));
        progress.update("writing", shareOf(first + size, scene));
    }
    file.close();
    if (!file) {
        throw Failure(
            ExitStatus::outputRefused,
            fmt::format("{}: cannot be written: check the disk and its free space", textFromPath(path)));
    }
    scene.requireUnchanged();
}

ExitStatus runNormalise(const NormaliseOptions& options) {
    const std::string& output = options.words.back();
    const std::vector<std::string> inputs(options.words.begin(), options.words.end() - 1);
    for (const std::string& word : options.words) {
        requireWord(word, "IN or OUT.ply", "a file");
    }
    catchInterrupts("what was written is removed");
    Progress progress(!options.quiet && standardErrorIsTerminal());
    const Means means = chooseMeans(0, 0);
    const fs::path folder = fs::absolute(pathFromText(output)).parent_path();
    checkTargetFile(output, options.force);
    requireOther(output, inputs);
    const auto scene = openScene(inputs, sceneOptions(options.input, means.threads, folder));
    const SplatStream::Measured measured =
        measureSource(namesText(inputs), *scene, means,
                      [&](std::uint64_t splats) { progress.update("measuring", shareOf(splats, *scene)); });
    requireAccepted(*scene);
    const bool statesBounds = measured.isBoxStated || scene->boundsSeen;
    PartialFile partial(pathFromText(output));
    try {
        writeRecords(*scene,
                     SplatSource::canonicalHeader(measured.params, statesBounds, measured.splats,
                                                  measured.hasCoefficients),
                     partial.path(), progress);
    } catch (...) {
        rethrowAsFailure(ExitStatus::conversionFailed);
    }
    const std::uint64_t bytes = fs::file_size(partial.path());
    partial.publish();
    progress.clear();
    const std::string dropped = droppedText(scene->ledger());
    if (!options.quiet) {
        for (const std::string& remark : scene->remarks) {
            reportWarning(remark);
        }
        for (const std::string& remark : scene->laterRemarks()) {
            reportWarning(remark);
        }
        if (!dropped.empty()) {
            reportWarning(fmt::format("{}: {}", namesText(inputs), dropped));
        }
        fmt::print("{}: {} of {} floats, {}, offset {}; in {}\n", output,
                   countText(measured.splats, "splat", "splats"),
                   GaussionSplat::recordLayout(measured.hasCoefficients).floats, bytesText(bytes),
                   offsetText(*scene, extentOf(measured)), durationText(progress.seconds()));
    }
    return ExitStatus::done;
}

} // namespace

void addNormaliseCommand(CLI::App& program, Action& chosen) {
    CLI::App* command =
        program.add_subcommand("normalise", "Write scenes as the PLY form that the library reads");
    command->footer(helpEnd({"plyconvert normalise scene.spz scene.ply"}));
    auto options = std::make_shared<NormaliseOptions>();
    addInputWords(*command, options->words, "OUT.ply",
                  "the scenes, merged in this order, and the file to write");
    addFileFlags(*command, options->force, options->quiet);
    addInputOptions(*command, options->input);
    command->callback([options, &chosen] { chosen = [options] { return runNormalise(*options); }; });
}

} // namespace Tavrin::SplatProgram
