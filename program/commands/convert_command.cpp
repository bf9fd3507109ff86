#include "program/commands/convert_command.h"

#include "program/commands/input_options.h"
#include "program/commands/limit_options.h"
#include "program/convert/conversion.h"
#include "program/convert/output_check.h"
#include "program/convert/plan.h"
#include "program/convert/plan_text.h"
#include "program/convert/publish.h"
#include "program/convert/summary.h"
#include "program/convert/verification.h"
#include "program/convert/warnings.h"
#include "program/scene/open_scene.h"
#include "program/system/interrupt.h"
#include "program/system/platform.h"
#include "program/terminal/console.h"
#include "program/terminal/progress.h"
#include "program/tiles/done_record.h"
#include "program/tiles/report.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

struct ConvertOptions {
    std::vector<std::string> words; // the inputs, then the dataset's folder
    InputOptions input;
    LimitOptions limits;
    bool force = false;
    bool dryRun = false;
    bool quiet = false;
    bool json = false;
    bool allowLoss = false;
    bool skipDone = false;
    std::string report; // empty: none

    std::vector<std::string> inputs() const { return {words.begin(), words.end() - 1}; }
    const std::string& output() const { return words.back(); }
    std::string name() const { return namesText(inputs()); }
};

// An empty name usually comes from an unset variable in a script. Empty for a good one.
std::string checkFileName(const std::string& word) {
    return word.empty() ? "an empty word names no file" : "";
}

void printPlan(const ConvertOptions& options, const Plan& plan, const OutputPlace& place,
               const Warnings& warnings) {
    if (options.json) {
        fmt::print("{}", planJson(plan, place, warnings.lines()));
    } else if (!options.quiet) {
        fmt::print("{}", planText(plan, place));
    }
}

Summary summaryOf(const ConvertOptions& options, const Plan& plan, const SplatReader::VerifyReport& report,
                  double seconds, const Warnings& warnings) {
    Summary summary;
    summary.input = options.name();
    summary.output = options.output();
    summary.read = plan.records();
    summary.ledger = plan.ledger;
    summary.offset = plan.offsets;
    summary.place = plan.offset;
    summary.largestError = plan.largestError;
    summary.written = report.splatsHeld;
    summary.leftOut = report.splatsLeftOut;
    summary.cells = report.cells;
    summary.dataBytes = report.dataBytes;
    summary.coefficientBytes = report.coefficientBytes;
    summary.indexBytes = report.indexBytes;
    summary.metaBytes = report.metaBytes;
    summary.seconds = seconds;
    summary.warnings = warnings.lines();
    return summary;
}

void printSummary(const ConvertOptions& options, const Summary& summary) {
    if (options.json) {
        fmt::print("{}", summaryJson(summary));
    } else if (!options.quiet) {
        fmt::print("{}", summary.isSkipped ? skippedText(summary) : summaryText(summary));
    }
}

double shareOf(std::uint64_t splats, std::uint64_t all) {
    return all > 0 ? static_cast<double>(splats) / static_cast<double>(all) : 1.0;
}

// One run: its options, progress, warnings and report.
struct Run {
    const ConvertOptions& options;
    Warnings warnings;
    Progress progress;
    TileReport report;

    explicit Run(const ConvertOptions& chosen)
        : options(chosen), warnings(chosen.quiet), progress(!chosen.quiet && standardErrorIsTerminal()) {}
};

TileReport emptyReport(const ConvertOptions& options) {
    TileReport report;
    report.output = options.output();
    report.inputs = options.inputs();
    for (const std::string& input : report.inputs) {
        report.files.push_back(lookAtInput(input));
    }
    report.options = givenWords(options.input);
    const auto add = [&](const char* name, const std::string& word) {
        if (!word.empty()) {
            report.options.emplace_back(name, word);
        }
    };
    add("allowLoss", options.allowLoss ? "true" : "");
    add("force", options.force ? "true" : "");
    add("threads", options.limits.threads > 0 ? std::to_string(options.limits.threads) : "");
    add("maxMemory", options.limits.maxMemory);
    return report;
}

// Everything that decides the bytes of the dataset; nothing when an input cannot be inspected.
std::optional<Making> makingOf(const Run& run) {
    Making making;
    for (const std::optional<InputFile>& file : run.report.files) {
        if (!file) {
            return std::nullopt;
        }
        making.inputs.push_back(*file);
    }
    making.options = givenWords(run.options.input);
    std::erase_if(making.options, [](const auto& option) { return option.first == "strict"; });
    making.started = run.report.started;
    return making;
}

// True when an earlier run has already made this dataset.
bool skips(Run& run, const Making& making, const OutputPlace& place) {
    const ConvertOptions& options = run.options;
    const auto done = findDone(place.folder, making, options.input.strict, options.allowLoss);
    if (!done) {
        return false;
    }
    Summary summary = done->summary;
    summary.input = options.name();
    summary.output = options.output();
    summary.isSkipped = true;
    run.report.take(summary);
    run.report.line = skippedText(summary);
    run.report.line.pop_back(); // the line feed
    run.report.outcome = Outcome::skipped;
    printSummary(options, summary);
    requireStandardOutput();
    return true;
}

// Measures the scene. A dry run stops after this.
Plan planOf(Run& run, const SplatSource::Scene& source, const OutputPlace& place, const Means& means) {
    run.report.times.begin("measuring");
    Plan plan = makePlan(run.options.name(), source, place, means, run.warnings, [&](std::uint64_t splats) {
        const double share = shareOf(splats, source.count);
        if (run.options.dryRun) {
            run.progress.update("measuring", share, splats);
        } else {
            run.progress.update(Stage::measuring, share, splats);
        }
    });
    run.progress.clear();
    run.report.ledger = plan.ledger;
    run.report.cells = plan.measured.cells.size();
    run.report.leftOut = plan.measured.leftOut;
    run.report.plannedMemory = plan.memory;
    return plan;
}

// Writes, verifies and publishes. The files are flushed to the disk while they are verified.
SplatReader::VerifyReport convert(Run& run, const std::shared_ptr<const SplatSource::Scene>& source,
                                  const std::shared_ptr<const Plan>& shared, const OutputPlace& place,
                                  const Means& means) {
    const ConvertOptions& options = run.options;
    const Plan& plan = *shared;
    StageTimes& times = run.report.times;
    times.begin("writing");
    PartialFolder partial(place);
    partial.create();
    const std::shared_ptr<const SplatStream::Measured> measured(shared, &plan.measured);
    writeDataset(options.inputs().front(), source, measured, partial.path(), means,
                 [&](std::uint64_t splats) {
                     run.progress.update(Stage::writing, shareOf(splats, plan.measured.splats), splats);
                 });
    times.begin("verifying");
    partial.beginFlush();
    SplatReader::VerifyReport report =
        verifyConversion(partial.path(), options.name(), plan.measured, plan.ledger, options.allowLoss,
                         means.threads, run.progress);
    times.begin("flushing");
    partial.flush([&](double share) { run.progress.update(Stage::flushing, share); });
    run.progress.clear();
    times.begin("publishing");
    if (const auto remark = partial.publish(options.inputs(), options.force)) {
        run.warnings.add(*remark);
    }
    return report;
}

// A failure only warns: the dataset is in place, and without the record the next run makes it again.
void keepRecord(Run& run, const Making& making, const OutputPlace& place, const Summary& summary) {
    try {
        recordDone(place.folder, making, summary);
    } catch (const Failure& failure) {
        run.warnings.add(fmt::format("{} (--skip-done will convert again)", failure.what()));
    }
}

ExitStatus convertScene(Run& run) {
    const ConvertOptions& options = run.options;
    run.report.times.begin("opening");
    const Means means = chooseMeans(options.limits.threads, options.limits.memory());
    run.report.threads = means.threads;
    OutputPlace place = resolveOutput(options.output());
    const std::optional<Making> making = makingOf(run);
    if (options.skipDone && making && skips(run, *making, place)) {
        return ExitStatus::done;
    }
    const std::shared_ptr<const SplatSource::Scene> source =
        openScene(options.inputs(), sceneOptions(options.input, means.threads, place.foundation));
    for (const std::string& remark : source->remarks) {
        run.warnings.add(remark);
    }
    if (!options.dryRun) {
        cleanUpDeadRuns(place.folder);
        place = resolveOutput(options.output()); // cleaning up may have restored an earlier dataset
    }
    for (const std::string& input : options.inputs()) {
        checkOutput(place, input, options.force);
    }
    const auto plan = std::make_shared<const Plan>(planOf(run, *source, place, means));
    if (options.dryRun) {
        printPlan(options, *plan, place, run.warnings);
        return ExitStatus::done;
    }
    const SplatReader::VerifyReport verified = convert(run, source, plan, place, means);
    forgetDone(place.folder); // it describes the dataset that was replaced
    const Summary summary = summaryOf(options, *plan, verified, run.progress.seconds(), run.warnings);
    run.report.take(summary);
    run.report.line = summaryText(summary);
    run.report.line.pop_back(); // the line feed
    if (options.skipDone && making) {
        keepRecord(run, *making, place, summary);
    }
    printSummary(options, summary);
    requireStandardOutput();
    return ExitStatus::done;
}

ExitStatus runConvert(const ConvertOptions& options) {
    for (const std::string& input : options.inputs()) {
        requireWord(input, "IN", "a file");
    }
    requireWord(options.output(), "OUT", "a folder");
    catchInterrupts(options.dryRun ? "nothing was written"
                                   : "nothing was published, what was written is removed");
    Run run(options);
    run.report = emptyReport(options);
    return withReport(
        ReportFile(options.report, options.output()), run.report, [&run] { return convertScene(run); },
        [&run] { run.report.warnings = run.warnings.lines(); });
}

} // namespace

void addConvertCommand(CLI::App& program, Action& chosen) {
    CLI::App* command = program.add_subcommand("convert", "Convert scenes of splats to a dataset");
    command->footer(helpEnd({"plyconvert convert scene.ply town",
                             "plyconvert convert east.spz west.ply town --crop 0,0,-10,500,500,90"}));
    auto options = std::make_shared<ConvertOptions>();
    addInputWords(*command, options->words, "OUT",
                  "the scenes, merged in this order, and the\ndataset's folder; an earlier one is replaced");
    command->add_flag("--force", options->force, "replace the folder with everything that it holds");
    command->add_flag("--dry-run", options->dryRun, "check everything, print the plan, convert nothing");
    addQuietFlag(*command, options->quiet);
    command->add_flag("--json", options->json, "print the summary or the plan as JSON");
    command->add_flag("--allow-loss", options->allowLoss,
                      "publish even if splats outside the grid are left out");
    addLimitOptions(*command, options->limits);
    command->add_flag("--skip-done", options->skipDone,
                      "do nothing if OUT is sound and was made of IN this way");
    command->add_option("--report", options->report, "write the result, or the failure, to FILE as JSON")
        ->type_name("FILE")
        ->check(checkFileName);
    addInputOptions(*command, options->input);
    command->callback([options, &chosen] {
        if (options->dryRun && (!options->report.empty() || options->skipDone)) {
            throw CLI::ExcludesError("--dry-run", options->skipDone ? "--skip-done" : "--report");
        }
        chosen = [options] { return runConvert(*options); };
    });
}

} // namespace Tavrin::SplatProgram
