// plyconvert summary: what came of many tiles.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addSummaryCommand;

} // namespace Tavrin::SplatProgram
