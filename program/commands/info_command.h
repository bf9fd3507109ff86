#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addInfoCommand;

} // namespace Tavrin::SplatProgram
