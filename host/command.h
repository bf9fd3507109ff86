#pragma once

#include "exit_status.h"

#include <functional>

namespace CLI {
class App;
}

namespace Tavrin::SplatProgram {

// What the command line asks for, with its options bound. Ends with an exit status, or throws a Failure.
using Action = std::function<ExitStatus()>;

// Each subcommand lives in NAME_command.cpp and has one function `addNAMECommand` of this form. It adds its
// subcommand to `program` and leaves its action in `chosen` when the command line selects it.
using AddCommand = void(CLI::App& program, Action& chosen);

} // namespace Tavrin::SplatProgram
