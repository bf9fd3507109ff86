#include "program/commands/info_command.h"

#include "program/info/info_text.h"
#include "program/system/interrupt.h"
#include "program/system/platform.h"
#include "program/terminal/console.h"
#include "program/terminal/progress.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdlib>
#include <memory>
#include <string>

namespace Tavrin::SplatProgram {
namespace {

struct InfoOptions {
    std::vector<std::string> paths;
    bool scan = false;
    bool json = false;
    bool cells = false;
};

// The character set of the locale. As in other programs, the first of the three variables that is set
// decides.
bool terminalTakesUtf8() {
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* value = std::getenv(name);
        if (value != nullptr && *value != '\0') {
            const std::string_view locale(value);
            return locale.find("UTF-8") != std::string_view::npos ||
                   locale.find("utf8") != std::string_view::npos;
        }
    }
    return false;
}

std::string describe(const std::string& path, const InfoOptions& options, Progress& progress) {
    InfoStyle style;
    style.cells = options.cells;
    if (standardOutputIsTerminal()) {
        style.bars = terminalTakesUtf8() ? Bars::blocks : Bars::ascii;
        style.columns = terminalColumns();
    }
    const ScanProgress report = [&progress](double share) { progress.update("reading", share); };
    std::error_code ignored;
    if (std::filesystem::is_directory(pathFromText(path), ignored)) {
        try {
            const DatasetFacts facts = readDatasetFacts(path, options.scan, report);
            return options.json ? datasetJson(facts, options.cells) : datasetText(facts, style);
        } catch (const SplatReader::DatasetError& error) {
            throw Failure(ExitStatus::inputRefused,
                          fmt::format("{}: not a dataset that can be read: {}", path, error.what()));
        }
    }
    if (!std::filesystem::exists(pathFromText(path), ignored)) {
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: there is no such file or folder: check the path", path));
    }
    const SceneFacts facts = readSceneFacts(path, options.scan, report);
    return options.json ? sceneJson(facts) : sceneText(facts, style);
}

ExitStatus runInfo(const InfoOptions& options) {
    catchInterrupts("nothing was written");
    Progress progress(standardErrorIsTerminal());
    ExitStatus status = ExitStatus::done;
    bool first = true;
    for (const std::string& path : options.paths) {
        requireWord(path, "PATH", "a file or a folder");
        try {
            const std::string text = describe(path, options, progress);
            progress.clear();
            fmt::print("{}{}", first || options.json ? "" : "\n", text);
            first = false;
        } catch (const Failure& failure) {
            progress.clear();
            if (failure.status() == ExitStatus::interrupted) {
                throw;
            }
            reportError(failure.what());
            status = failure.status();
        }
    }
    return status;
}

} // namespace

void addInfoCommand(CLI::App& program, Action& chosen) {
    CLI::App* command = program.add_subcommand("info", "Print what scenes and datasets hold");
    command->footer(helpEnd({"plyconvert info scene.ply town"}));
    auto options = std::make_shared<InfoOptions>();
    command->add_option("PATH", options->paths, "scenes and datasets' folders")->required();
    command->add_flag("--scan", options->scan, "read every record, not a sample, for the box and extremes");
    command->add_flag("--json", options->json, "print one JSON object on a line for each path");
    command->add_flag("--cells", options->cells, "list a dataset's cells");
    command->callback([options, &chosen] { chosen = [options] { return runInfo(*options); }; });
}

} // namespace Tavrin::SplatProgram
