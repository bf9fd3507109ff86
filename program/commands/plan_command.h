// plyconvert plan: estimates what the conversions of many tiles take.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addPlanCommand;

} // namespace Tavrin::SplatProgram
