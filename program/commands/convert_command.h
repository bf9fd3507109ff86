// plyconvert convert: converts scenes to a dataset.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addConvertCommand;

} // namespace Tavrin::SplatProgram
