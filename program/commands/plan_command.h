// plyconvert plan: what the conversions of many tiles will take.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addPlanCommand;

} // namespace Tavrin::SplatProgram
