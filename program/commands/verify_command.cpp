#include "program/commands/verify_command.h"

#include "program/commands/input_options.h"
#include "program/compare/comparison.h"
#include "program/scene/open_scene.h"
#include "program/system/interrupt.h"
#include "program/system/platform.h"
#include "program/system/processors.h"
#include "program/terminal/console.h"
#include "program/terminal/figures.h"
#include "program/terminal/progress.h"
#include "reader/verify.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

struct VerifyOptions {
    std::string dataset;
    std::vector<std::string> sources; // empty without --against
    InputOptions input;
    bool quick = false;
    bool full = false;
    bool json = false;
    bool strict = false;
    bool quiet = false;
};

struct Result {
    SplatReader::VerifyReport report;
    std::optional<Comparison> comparison;
    SplatSource::Ledger ledger; // of the source, where it was compared
    bool passed = false;
};

Result verify(const VerifyOptions& options, Progress& progress) {
    const std::filesystem::path folder = pathFromText(options.dataset);
    requireFolder(options.dataset);
    std::unique_ptr<SplatSource::Scene> source;
    if (!options.sources.empty()) {
        source = openScene(options.sources, sceneOptions(options.input, usableProcessors(),
                                                         std::filesystem::temp_directory_path()));
    }
    SplatReader::VerifyOptions how;
    how.level = options.quick ? SplatReader::VerifyLevel::quick : SplatReader::VerifyLevel::full;
    how.progress = [&progress](std::uint64_t done, std::uint64_t all) {
        throwIfInterrupted();
        progress.update("reading records", static_cast<double>(done) / static_cast<double>(all));
    };
    Result result;
    result.report = SplatReader::verifyDataset(folder, how);
    // If the files contradict each other, a comparison would repeat that for every splat.
    if (source && result.report.sound()) {
        try {
            const SplatReader::Dataset dataset = SplatReader::Dataset::open(folder);
            result.comparison =
                compareWithSource(dataset, *source, result.report.findings, [&progress](double share) {
                    progress.update("comparing with the source", share);
                });
            source->requireUnchanged();
            result.ledger = source->ledger();
        } catch (const SplatReader::DatasetError& error) { // it changed meanwhile
            const SplatReader::Finding& finding = error.finding();
            result.report.findings.error(finding.kind, finding.file, finding.offset, finding.expected,
                                         finding.found);
        } catch (...) {
            rethrowAsFailure(ExitStatus::inputRefused);
        }
    }
    const SplatReader::Findings& findings = result.report.findings;
    result.passed = findings.errorCount() == 0 && (!options.strict || findings.warningCount() == 0);
    return result;
}

void printFindings(const char* kind, const std::vector<SplatReader::Finding>& listed,
                   const std::map<std::string, std::uint64_t>& kinds) {
    std::map<std::string, std::uint64_t> shown;
    for (const SplatReader::Finding& finding : listed) {
        fmt::print("{}: {}\n", kind, printable(finding.text()));
        ++shown[finding.kind];
    }
    for (const auto& [name, count] : kinds) {
        if (count > shown[name]) {
            fmt::print("{}: and {} more like these ({})\n", kind, countText(count - shown[name]), name);
        }
    }
}

void printComparison(const Comparison& comparison, const SplatSource::Ledger& ledger) {
    fmt::print("compared with the source: {}, positions equal bit for bit\n",
               countText(comparison.found, "splat", "splats"));
    if (ledger.read > comparison.found) {
        const std::string dropped = droppedText(ledger);
        fmt::print("  {} read = {} written + {} dropped + {} left out{}\n", countText(ledger.read),
                   countText(comparison.found), countText(ledger.droppedInAll()),
                   countText(comparison.leftOut), dropped.empty() ? "" : "; " + dropped);
    }
    fmt::print("  {:<13} {:>15} {:>13} {:>13} {:>9}\n", "attribute", "values", "largest error", "RMS error",
               "in steps");
    for (const AttributeError& error : comparison.attributes) {
        if (error.values + error.skipped == 0) {
            continue;
        }
        fmt::print("  {:<13} {:>15} {:>13.4g} {:>13.4g} {:>9.3f}{}\n", error.name, countText(error.values),
                   error.largest, error.rms(), error.largestSteps,
                   error.skipped == 0
                       ? std::string()
                       : fmt::format("  ({} without a finite value)", countText(error.skipped)));
    }
}

std::string verdictText(const SplatReader::Findings& findings) {
    if (findings.errorCount() == 0 && findings.warningCount() == 0) {
        return "no errors";
    }
    return countText(findings.errorCount(), "error", "errors") + ", " +
           countText(findings.warningCount(), "warning", "warnings");
}

void printText(const VerifyOptions& options, const Result& result) {
    const SplatReader::VerifyReport& report = result.report;
    const SplatReader::Findings& findings = report.findings;
    printFindings("error", findings.errors(), findings.errorKinds());
    printFindings("warning", findings.warnings(), findings.warningKinds());
    if (result.comparison && findings.errorCount() == 0) {
        printComparison(*result.comparison, result.ledger);
    }
    if (report.splatsLeftOut > 0 && findings.errorCount() == 0) {
        fmt::print("{} of the input's {} splats are left out: they lie outside the grid\n",
                   countText(report.splatsLeftOut), countText(report.splatsHeld + report.splatsLeftOut));
    }
    fmt::print("{}: {}, {} in {}: {}\n", options.dataset,
               report.use      ? "every record checked"
               : options.quick ? "metadata, sizes and index checked"
                               : "the records were not read",
               countText(report.splatsHeld, "splat", "splats"), countText(report.cells, "cell", "cells"),
               verdictText(findings));
}

nlohmann::ordered_json findingsJson(const std::vector<SplatReader::Finding>& listed) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const SplatReader::Finding& finding : listed) {
        list.push_back({{"kind", finding.kind},
                        {"file", finding.file},
                        {"offset", finding.offset},
                        {"expected", finding.expected},
                        {"found", finding.found}});
    }
    return list;
}

nlohmann::ordered_json comparisonJson(const Comparison& comparison, const SplatSource::Ledger& ledger) {
    nlohmann::ordered_json dropped = nlohmann::ordered_json::object();
    for (std::size_t i = 0; i < SplatSource::dropReasons; ++i) {
        dropped[SplatSource::nameOf(static_cast<SplatSource::DropReason>(i))] = ledger.dropped[i];
    }

    nlohmann::ordered_json attributes = nlohmann::ordered_json::array();
    for (const AttributeError& error : comparison.attributes) {
        attributes.push_back({{"name", error.name},
                              {"values", error.values},
                              {"notFinite", error.skipped},
                              {"largestError", error.largest},
                              {"rmsError", error.rms()},
                              {"largestErrorInSteps", error.largestSteps}});
    }
    return {{"splats", comparison.splats}, {"found", comparison.found},     {"read", ledger.read},
            {"dropped", dropped},          {"leftOut", comparison.leftOut}, {"attributes", attributes}};
}

void printJson(const VerifyOptions& options, const Result& result) {
    const SplatReader::VerifyReport& report = result.report;
    nlohmann::ordered_json json;
    json["dataset"] = options.dataset;
    json["level"] = options.quick ? "quick" : "full";
    json["passed"] = result.passed;
    json["errorCount"] = report.findings.errorCount();
    json["warningCount"] = report.findings.warningCount();
    json["errors"] = findingsJson(report.findings.errors());
    json["warnings"] = findingsJson(report.findings.warnings());
    json["cells"] = report.cells;
    json["splatsHeld"] = report.splatsHeld;
    json["splatsLeftOut"] = report.splatsLeftOut;
    json["bytes"] = {{"meta", report.metaBytes},
                     {"index", report.indexBytes},
                     {"data", report.dataBytes},
                     {"coefficients", report.coefficientBytes}};
    if (result.comparison) {
        json["against"] = comparisonJson(*result.comparison, result.ledger);
        json["against"]["source"] = options.sources.size() == 1 ? nlohmann::ordered_json(options.sources[0])
                                                                : nlohmann::ordered_json(options.sources);
    }
    fmt::print("{}\n", json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

ExitStatus runVerify(const VerifyOptions& options) {
    requireWord(options.dataset, "OUT", "a folder");
    catchInterrupts("nothing was written");
    Progress progress(!options.quiet && standardErrorIsTerminal());
    const Result result = verify(options, progress);
    progress.clear();
    if (options.json) {
        printJson(options, result);
    } else if (!options.quiet) {
        printText(options, result);
    }
    if (!result.passed) {
        std::fflush(stdout); // the findings come before the line that counts them
        reportError(
            fmt::format("{}: verification failed: {}", options.dataset, verdictText(result.report.findings)));
        return ExitStatus::verificationFailed;
    }
    return ExitStatus::done;
}

} // namespace

void addVerifyCommand(CLI::App& program, Action& chosen) {
    CLI::App* command =
        program.add_subcommand("verify", "Check every relation between the files of a dataset");
    command->footer(helpEnd({"plyconvert verify town", "plyconvert verify town --against scene.ply"}));
    auto options = std::make_shared<VerifyOptions>();
    command->add_option("OUT", options->dataset, "the dataset's folder");
    command->add_flag("--quick", options->quick, "check only the meta document, the sizes and the index");
    command->add_flag("--full", options->full, "check every record as well (this is the default)");
    command->add_option("--against", options->sources, "compare every splat with the files it was made of")
        ->type_name("IN");
    command->add_flag("--json", options->json, "print the report as JSON");
    command->add_flag("--strict", options->strict, "fail on warnings, too");
    addQuietFlag(*command, options->quiet);
    addInputOptions(*command, options->input, false);
    command->callback([options, &chosen] {
        if (options->quick && options->full) {
            throw CLI::ExcludesError("--quick", "--full");
        }
        // The last word behind --against may be the dataset.
        if (options->dataset.empty() && options->sources.size() > 1) {
            options->dataset = options->sources.back();
            options->sources.pop_back();
        }
        if (options->dataset.empty()) {
            throw CLI::RequiredError("OUT");
        }
        chosen = [options] { return runVerify(*options); };
    });
}

} // namespace Tavrin::SplatProgram
