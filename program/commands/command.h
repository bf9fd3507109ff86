// What the subcommands have in common: how one is added, what it leaves to run, and checks of its words.
#pragma once

#include "program/system/exit_status.h"

#include <functional>
#include <initializer_list>
#include <string>

namespace CLI {
class App;
}

namespace Tavrin::SplatProgram {

// What the command line asks for, with its options bound. Ends with an exit status, or throws a Failure.
using Action = std::function<ExitStatus()>;

// Each subcommand lives in NAME_command.cpp and has one function `addNAMECommand` of this form. It adds its
// subcommand to `program` and leaves its action in `chosen` when the command line selects it.
using AddCommand = void(CLI::App& program, Action& chosen);

// The end of a subcommand's help: command lines as examples, and the exit statuses.
std::string helpEnd(std::initializer_list<const char*> examples);

// Throws a Failure (Usage) when the word given for `name` is empty; `what` says what to name.
void requireWord(const std::string& word, const char* name, const char* what);

// Throws a Failure (InputRefused) when no folder stands there.
void requireFolder(const std::string& path);

} // namespace Tavrin::SplatProgram
