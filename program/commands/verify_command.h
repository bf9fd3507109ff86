// plyconvert verify: whether a dataset is sound, and agrees with the scene that it was made of.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addVerifyCommand;

} // namespace Tavrin::SplatProgram
