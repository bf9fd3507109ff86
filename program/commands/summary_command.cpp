#include "program/commands/summary_command.h"

#include "program/terminal/console.h"
#include "program/tiles/report_summary.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

struct SummaryOptions {
    std::vector<std::string> reports;
    bool json = false;
};

ExitStatus runSummary(const SummaryOptions& options) {
    std::vector<ReportedTile> tiles;
    ExitStatus status = ExitStatus::done;
    for (const std::string& report : options.reports) {
        requireWord(report, "REPORT", "a file");
        try {
            tiles.push_back(readReport(report));
        } catch (const Failure& failure) {
            reportError(failure.what());
            status = failure.status();
        }
    }
    fmt::print("{}", options.json ? tilesJson(tiles) : tilesText(tiles));
    const bool hasFailed = std::ranges::any_of(tiles, &ReportedTile::hasFailed);
    return hasFailed ? ExitStatus::conversionFailed : status;
}

} // namespace

void addSummaryCommand(CLI::App& program, Action& chosen) {
    CLI::App* command =
        program.add_subcommand("summary", "Sum up the conversions of many tiles from their reports");
    command->footer(std::string("Example:\n  plyconvert summary reports/*.json\n\n"
                                "The exit status is 4 if a tile is not done.\n\n") +
                    exitStatusTable);
    auto options = std::make_shared<SummaryOptions>();
    command->add_option("REPORT", options->reports, "files that convert --report has written")->required();
    command->add_flag("--json", options->json, "print one JSON object");
    command->callback([options, &chosen] { chosen = [options] { return runSummary(*options); }; });
}

} // namespace Tavrin::SplatProgram
