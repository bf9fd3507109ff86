#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addVerifyCommand;

} // namespace Tavrin::SplatProgram
