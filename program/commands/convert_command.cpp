#include "program/commands/convert_command.h"

#include "program/convert/conversion.h"
#include "program/convert/output_check.h"
#include "program/convert/plan_text.h"
#include "program/convert/preflight.h"
#include "program/convert/publish.h"
#include "program/convert/summary.h"
#include "program/convert/verdict.h"
#include "program/convert/verification.h"
#include "program/system/interrupt.h"
#include "program/system/platform.h"
#include "program/terminal/console.h"
#include "program/terminal/progress.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <memory>
#include <string>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

struct ConvertOptions {
    std::string input;
    std::string output;
    bool force = false;
    bool dryRun = false;
    bool quiet = false;
    bool json = false;
    bool allowLoss = false;
    bool unchecked = false;
};

// What tells whether a file was written to in the meantime.
struct FileStamp {
    std::uint64_t size = 0;
    fs::file_time_type time;
    bool operator==(const FileStamp&) const = default;
};

FileStamp stampOf(const std::string& name) {
    std::error_code error;
    const fs::path path = pathFromText(name);
    return {fs::file_size(path, error), fs::last_write_time(path, error)};
}

void requireUnchanged(const std::string& name, const FileStamp& before) {
    if (stampOf(name) != before) {
        throw Failure(
            ExitStatus::conversionFailed,
            fmt::format("{}: the file was written to while it was converted: convert it again", name));
    }
}

void printPlan(const ConvertOptions& options, const Plan* plan, const OutputPlace& place,
               const Verdict& verdict) {
    if (plan == nullptr) {
        fmt::print("{}: there is no plan for an input that cannot be measured\n", options.input);
    } else if (options.json) {
        fmt::print("{}", planJson(*plan, place, verdict.warnings()));
    } else if (!options.quiet) {
        fmt::print("{}", planText(*plan, place));
    }
}

Summary summarise(const ConvertOptions& options, const SplatReader::VerifyReport& report, double seconds,
                  const Verdict& verdict) {
    Summary summary;
    summary.input = options.input;
    summary.output = options.output;
    summary.read = report.splatsHeld + report.splatsLeftOut;
    summary.written = report.splatsHeld;
    summary.leftOut = report.splatsLeftOut;
    summary.cells = report.cells;
    summary.dataBytes = report.dataBytes;
    summary.coefficientBytes = report.coefficientBytes;
    summary.indexBytes = report.indexBytes;
    summary.metaBytes = report.metaBytes;
    summary.seconds = seconds;
    summary.warnings = verdict.warnings();
    return summary;
}

ExitStatus runConvert(const ConvertOptions& options) {
    requireWord(options.input, "IN.ply", "a file");
    requireWord(options.output, "OUT", "a folder");
    catchInterrupts();
    Verdict verdict(options.unchecked, options.quiet);
    Progress progress(!options.quiet && standardErrorIsTerminal());
    const FileStamp stamp = stampOf(options.input);
    const std::optional<InputFacts> input = checkInput(options.input, verdict);
    OutputPlace place = resolveOutput(options.output);
    if (!options.dryRun) {
        cleanUpDeadRuns(place.folder);
        place = resolveOutput(options.output); // an earlier dataset may be back
    }
    checkOutput(place, options.input, options.force);
    const std::optional<Plan> planned = makePlan(input, place, verdict, progress);
    const Plan* const plan = planned ? &*planned : nullptr;
    if (options.dryRun) {
        printPlan(options, plan, place, verdict);
        return ExitStatus::done;
    }

    PartialFolder partial(place);
    convertInChild(options.input, partial.path(), plan, progress);
    requireUnchanged(options.input, stamp);
    const SplatReader::VerifyReport report =
        verifyConversion(partial.path(), options.input, plan, options.allowLoss, progress);
    partial.flush([&](double share) { progress.update(Stage::flushing, share); });
    progress.clear();
    if (const auto remark = partial.publish(options.input, options.force)) {
        verdict.warn(*remark);
    }

    const Summary summary = summarise(options, report, progress.seconds(), verdict);
    if (options.json) {
        fmt::print("{}", summaryJson(summary));
    } else if (!options.quiet) {
        fmt::print("{}", summaryText(summary));
    }
    return ExitStatus::done;
}

} // namespace

void addConvertCommand(CLI::App& program, Action& chosen) {
    CLI::App* command = program.add_subcommand("convert", "Convert a splat PLY file to a dataset");
    command->footer(exitStatusTable);
    auto options = std::make_shared<ConvertOptions>();
    command->add_option("IN.ply", options->input, "the splat PLY file")->required();
    command->add_option("OUT", options->output, "the dataset's folder; an earlier dataset is replaced")
        ->required();
    command->add_flag("--force", options->force, "replace the folder with everything that it holds");
    command->add_flag("--dry-run", options->dryRun, "check everything, print the plan, convert nothing");
    command->add_flag("--quiet", options->quiet, "say nothing but errors");
    command->add_flag("--json", options->json, "print the summary or the plan as JSON");
    command->add_flag("--allow-loss", options->allowLoss,
                      "publish though splats outside the grid are left out");
    command->add_flag("--unchecked", options->unchecked,
                      "only warn of a bad input, and of too little disk or memory");
    command->callback([options, &chosen] { chosen = [options] { return runConvert(*options); }; });
}

} // namespace Tavrin::SplatProgram
