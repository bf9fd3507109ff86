// plyconvert normalise: writes scenes in the PLY layout that the library reads.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addNormaliseCommand;

} // namespace Tavrin::SplatProgram
