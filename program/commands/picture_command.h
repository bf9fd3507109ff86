// The subcommand `picture`.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

// Its line in the list of subcommands.
inline constexpr const char* pictureSummary = "Draw datasets from straight above, as a map picture";

AddCommand addPictureCommand;

} // namespace Tavrin::SplatProgram
