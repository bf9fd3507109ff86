#pragma once

#include "command.h"

namespace Tavrin::SplatProgram {

AddCommand addVerifyCommand;

} // namespace Tavrin::SplatProgram
