#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addNormaliseCommand;

} // namespace Tavrin::SplatProgram
