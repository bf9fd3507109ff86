// The subcommand `picture`.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

// What the list of subcommands says of it.
inline constexpr const char* pictureSummary = "Draw datasets from straight above, as a map picture";

AddCommand addPictureCommand;

} // namespace Tavrin::SplatProgram
