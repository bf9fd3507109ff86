// `picture` and `catalogue` of the plain program, which starts plyconvert-geo for them. Only plyconvert-geo
// needs the libraries for coordinate systems and pictures, so users who only convert need not install them.
// The executable links this file in place of picture_command.cpp and catalogue_command.cpp.

#include "program/commands/catalogue_command.h"
#include "program/commands/picture_command.h"
#include "program/system/exit_status.h"
#include "program/system/platform.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <string>
#include <utility>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

// Passes all following words, including `--help`, to plyconvert-geo.
void addHandedOver(CLI::App& program, Action& chosen, const char* name, const char* summary) {
    CLI::App* const command = program.add_subcommand(name, summary);
    command->prefix_command();
    command->set_help_flag();
    command->callback([command, name, &chosen] {
        std::vector<std::string> words = {name};
        for (std::string& word : command->remaining()) {
            words.push_back(std::move(word));
        }
        chosen = [words]() -> ExitStatus {
            runGeoProgram(words);
            throw Failure(
                ExitStatus::usage,
                fmt::format("{} is in a package of its own: install plyconvert-geo", words.front()));
        };
    });
}

} // namespace

void addPictureCommand(CLI::App& program, Action& chosen) {
    addHandedOver(program, chosen, "picture", pictureSummary);
}

void addCatalogueCommand(CLI::App& program, Action& chosen) {
    addHandedOver(program, chosen, "catalogue", catalogueSummary);
}

} // namespace Tavrin::SplatProgram
