// plyconvert verify: checks a dataset, and compares it with the scene that it was made of.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addVerifyCommand;

} // namespace Tavrin::SplatProgram
