// The subcommand in builds without the libraries that write pictures.
#include "program/commands/picture_command.h"

#include <CLI/CLI.hpp>

namespace Tavrin::SplatProgram {

void addPictureCommand(CLI::App& program, Action& chosen) {
    CLI::App* command =
        program.add_subcommand("picture", "Draw datasets from straight above (not in this build)");
    command->footer(exitStatusTable);
    command->allow_extras();
    command->callback([&chosen] {
        chosen = []() -> ExitStatus {
            throw Failure(ExitStatus::usage,
                          "picture is not in this build: draw the picture with the program's "
                          "build for Linux");
        };
    });
}

} // namespace Tavrin::SplatProgram
