#include "program/commands/plan_command.h"

#include "program/commands/input_options.h"
#include "program/commands/limit_options.h"
#include "program/system/interrupt.h"
#include "program/system/platform.h"
#include "program/system/processors.h"
#include "program/terminal/console.h"
#include "program/terminal/progress.h"
#include "program/tiles/tile_plan.h"
#include "program/tiles/tile_plan_text.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

struct PlanOptions {
    std::vector<std::string> tiles;
    InputOptions input;
    LimitOptions limits;
    bool scan = false;
    bool json = false;
    bool slurm = false;
};

PlanWish wishOf(const PlanOptions& options) {
    PlanWish wish;
    wish.isScanned = options.scan;
    wish.threads = options.limits.threads > 0 ? options.limits.threads : usableProcessors();
    wish.maxMemory = options.limits.memory();
    std::error_code ignored;
    wish.scene =
        sceneOptions(options.input, usableProcessors(), std::filesystem::temp_directory_path(ignored));
    return wish;
}

void print(const PlanOptions& options, const std::vector<TilePlan>& tiles, const PlanWish& wish) {
    if (options.json) {
        fmt::print("{}", plansJson(tiles, wish));
    } else if (!options.slurm) {
        fmt::print("{}", plansText(tiles, wish, standardOutputIsTerminal() ? terminalColumns() : 80));
    } else if (std::ranges::any_of(tiles, &TilePlan::isKnown)) {
        fmt::print("{}", plansSlurm(tiles, wish));
    }
}

ExitStatus runPlan(const PlanOptions& options) {
    for (const std::string& tile : options.tiles) {
        requireWord(tile, "IN", "a file");
    }
    catchInterrupts("nothing was written");
    Progress progress(standardErrorIsTerminal());
    const PlanWish wish = wishOf(options);
    const auto all = static_cast<double>(options.tiles.size());
    ExitStatus status = ExitStatus::done;
    std::vector<TilePlan> tiles;
    for (const std::string& input : options.tiles) {
        const auto before = static_cast<double>(tiles.size());
        tiles.push_back(planTile(input, wish,
                                 [&](double share) { progress.update("planning", (before + share) / all); }));
        if (const TilePlan& tile = tiles.back(); !tile.line.empty()) {
            progress.clear();
            reportError(tile.line);
            status = tile.status;
        }
    }
    progress.clear();
    print(options, tiles, wish);
    return status;
}

} // namespace

void addPlanCommand(CLI::App& program, Action& chosen) {
    CLI::App* command =
        program.add_subcommand("plan", "Estimate memory, disk and time of converting many tiles");
    command->footer(
        helpEnd({"plyconvert plan tiles/*.ply", "plyconvert plan --slurm --threads 8 tiles/*.ply"}));
    auto options = std::make_shared<PlanOptions>();
    command->add_option("IN", options->tiles, "the scenes; each one becomes a dataset")
        ->required()
        ->option_text("IN...");
    command->add_flag("--scan", options->scan, "read every record, not only headers, for exact figures");
    CLI::Option* json = command->add_flag("--json", options->json, "print one JSON object");
    command
        ->add_flag("--slurm", options->slurm, "print #SBATCH lines of an array job, one task for each tile")
        ->excludes(json);
    addLimitOptions(*command, options->limits);
    addInputOptions(*command, options->input);
    command->callback([options, &chosen] { chosen = [options] { return runPlan(*options); }; });
}

} // namespace Tavrin::SplatProgram
