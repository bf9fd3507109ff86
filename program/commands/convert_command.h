#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addConvertCommand;

} // namespace Tavrin::SplatProgram
