// plyconvert normalise: scenes become the one PLY form that the library reads.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addNormaliseCommand;

} // namespace Tavrin::SplatProgram
