// The subcommand `picture`.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addPictureCommand;

} // namespace Tavrin::SplatProgram
