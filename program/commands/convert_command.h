// plyconvert convert: a scene becomes a dataset.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addConvertCommand;

} // namespace Tavrin::SplatProgram
