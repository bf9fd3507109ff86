// Shared by all subcommands: adding one to the command line, the action that it runs, and checks of its
// arguments.
#pragma once

#include "program/system/exit_status.h"

#include <functional>
#include <initializer_list>
#include <string>

namespace CLI {
class App;
}

namespace Tavrin::SplatProgram {

// The work of the chosen subcommand, with its options bound. Returns the exit status or throws a Failure.
using Action = std::function<ExitStatus()>;

// Each subcommand lives in NAME_command.cpp and has one function `addNAMECommand` of this form. It adds the
// subcommand to `program`. When the command line selects the subcommand, it stores the action in `chosen`.
using AddCommand = void(CLI::App& program, Action& chosen);

// The last part of a subcommand's help: example command lines and the exit statuses.
std::string helpEnd(std::initializer_list<const char*> examples);

// Throws a Failure (Usage) when `word`, the argument `name`, is empty. `what` tells the user what to give
// instead.
void requireWord(const std::string& word, const char* name, const char* what);

// Throws a Failure (InputRefused) when `path` is not a folder.
void requireFolder(const std::string& path);

} // namespace Tavrin::SplatProgram
