#include "plyconvert.h"
#include "program/commands/catalogue_command.h"
#include "program/commands/command.h"
#include "program/commands/convert_command.h"
#include "program/commands/export_command.h"
#include "program/commands/info_command.h"
#include "program/commands/normalise_command.h"
#include "program/commands/picture_command.h"
#include "program/commands/plan_command.h"
#include "program/commands/summary_command.h"
#include "program/commands/verify_command.h"
#include "program/commands/view_command.h"
#include "program/system/apart.h"
#include "program/system/platform.h"
#include "program/terminal/console.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

struct CommandGroup {
    const char* heading; // in the help
    std::vector<AddCommand*> commands;
};

// The subcommands in the order of a user's work. The help, the man page and the shell completions follow it.
const std::vector<CommandGroup> groups = {
    {"Convert and check", {addConvertCommand, addInfoCommand, addVerifyCommand}},
    {"Look", {addViewCommand, addPictureCommand}},
    {"Many tiles", {addPlanCommand, addSummaryCommand, addCatalogueCommand}},
    {"Write PLY", {addExportCommand, addNormaliseCommand}},
};

void addCommands(CLI::App& program, Action& chosen) {
    for (const CommandGroup& group : groups) {
        for (AddCommand* add : group.commands) {
            add(program, chosen);
            program.get_subcommands({}).back()->group(group.heading);
        }
    }
}

std::string versionText() {
    return fmt::format("plyconvert {}.{}.{}", PLYCONVERT_VERSION_MAJOR, PLYCONVERT_VERSION_MINOR,
                       PLYCONVERT_VERSION_PATCH);
}

bool namesCommand(const CLI::App& program, const std::string& word) {
    const auto isNamed = [&](const CLI::App* command) { return command->check_name(word); };
    return !program.get_subcommands(isNamed).empty();
}

// True for a first word that looks like a mistyped subcommand: neither an option nor an existing file.
bool isMisspelt(const std::string& word) {
    std::error_code ignored;
    return word.find_first_of("-./\\") == std::string::npos && !word.empty() &&
           !std::filesystem::exists(pathFromText(word), ignored);
}

// `plyconvert IN... OUT` means `plyconvert convert IN... OUT`.
std::vector<std::string> withCommand(const CLI::App& program, std::vector<std::string> arguments) {
    if (arguments.empty()) {
        return arguments;
    }
    const std::string& first = arguments.front();
    if (first != "--help" && first != "-h" && first != "--version" && !namesCommand(program, first)) {
        arguments.insert(arguments.begin(), "convert");
    }
    return arguments;
}

ExitStatus printUsageError(const std::string& what) {
    reportError(what + " (plyconvert --help shows the usage)");
    return ExitStatus::usage;
}

// Shows a positional argument by its own option text where it has one, like "IN... OUT".
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_option_usage(const CLI::Option* option) const override {
        return option->get_option_text().empty() ? CLI::Formatter::make_option_usage(option)
                                                 : option->get_option_text();
    }

    std::string make_option_name(const CLI::Option* option, bool isPositional) const override {
        return option->get_option_text().empty() ? CLI::Formatter::make_option_name(option, isPositional)
                                                 : option->get_option_text();
    }

    std::string make_option_opts(const CLI::Option* option) const override {
        return option->get_option_text().empty() ? CLI::Formatter::make_option_opts(option) : std::string();
    }
};

// Keeps every line of help within 80 columns. Brackets in the usage line already mark what is optional.
void layOutHelp(CLI::App& program) {
    program.formatter(std::make_shared<HelpFormatter>());
    program.get_formatter()->column_width(20);
    program.get_formatter()->label("REQUIRED", "");
    program.get_formatter()->label("TEXT", "");
}

ExitStatus run(const std::vector<std::string>& words) {
    CLI::App program("Converts Gaussian-splat scenes to quantised datasets grouped by ground cell.\n"
                     "\"plyconvert IN... OUT\" is short for \"plyconvert convert IN... OUT\".\n",
                     "plyconvert");
    layOutHelp(program);
    program.set_version_flag("--version", versionText());
    program.footer(exitStatusTable);
    program.require_subcommand(1);
    program.allow_windows_style_options(false); // a word that begins with a slash is a path on every system
    Action chosen;
    addCommands(program, chosen);
    std::vector<std::string> arguments = withCommand(program, words);
    if (arguments.size() > words.size() && isMisspelt(words.front())) {
        return printUsageError(words.front() + " is neither a subcommand nor a file");
    }
    // CLI11 takes its arguments last first.
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    try {
        program.parse(reversed);
        return chosen();
    } catch (const CLI::CallForHelp&) {
        fmt::print("{}", program.help());
        return ExitStatus::done;
    } catch (const CLI::CallForVersion&) {
        fmt::print("{}\n", versionText());
        return ExitStatus::done;
    } catch (const CLI::RequiredError& error) {
        // An unknown word is reported before a missing one, because it tells the user more.
        const std::vector<std::string> unknown = program.remaining(true);
        return printUsageError(unknown.empty() ? error.what()
                                               : fmt::format("{} is not known", unknown.front()));
    } catch (const CLI::ParseError& error) {
        return printUsageError(error.what());
    }
}

} // namespace
} // namespace Tavrin::SplatProgram

int main(int argc, char** argv) {
    using namespace Tavrin::SplatProgram;
    const std::vector<std::string> words = commandLineWords(argc, argv);
    const TerminalText terminal;
    ExitStatus status = ExitStatus::conversionFailed;
    try {
        status = run(words);
    } catch (const std::exception& error) {
        const Failure failure = failureOf(error);
        reportError(failure.what());
        status = failure.status();
    }
    try {
        requireStandardOutput();
    } catch (const Failure& failure) {
        // After another failure, its line is the one that explains the status.
        if (status == ExitStatus::done) {
            reportError(failure.what());
            status = failure.status();
        }
    }
    if (isWorkLeftBehind()) {
        std::fflush(nullptr);
        std::_Exit(static_cast<int>(status));
    }
    return static_cast<int>(status);
}
