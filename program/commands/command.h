// Shared by all subcommands: adding one to the command line, the action that it runs, and checks of its
// arguments.
#pragma once

#include "program/system/exit_status.h"
#include "reader/dataset.h"

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

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

// Adds --quiet, the option of every subcommand that prints a summary. `quiet` must outlive the command.
void addQuietFlag(CLI::App& command, bool& quiet);

// Adds --force and --quiet, the last options of every subcommand that writes a file. Both must outlive the
// command.
void addFileFlags(CLI::App& command, bool& force, bool& quiet);

// Throws a Failure (Usage) when `word`, the argument `name`, is empty. `what` tells the user what to give
// instead.
void requireWord(const std::string& word, const char* name, const char* what);

// Throws a Failure (InputRefused) when `path` is not a folder.
void requireFolder(const std::string& path);

// Opens a dataset. Throws a Failure (InputRefused) when `path` is not a folder or the quick verification
// fails.
SplatReader::Dataset openSound(const std::string& path);

// Throws a Failure (OutputRefused) when the file `name` may not be written (checkTargetFile), or lies in the
// folder of one of the `datasets`: a conversion replaces only a folder without other files. `what` is the
// content of the file, for the message.
void checkOutputFile(const std::string& name, bool force, const std::vector<std::string>& datasets,
                     const char* what);

} // namespace Tavrin::SplatProgram
