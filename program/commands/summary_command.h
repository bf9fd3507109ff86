// plyconvert summary: prints the results of many tiles.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addSummaryCommand;

} // namespace Tavrin::SplatProgram
