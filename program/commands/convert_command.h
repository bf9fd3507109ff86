#pragma once

#include "command.h"

namespace Tavrin::SplatProgram {

AddCommand addConvertCommand;

} // namespace Tavrin::SplatProgram
