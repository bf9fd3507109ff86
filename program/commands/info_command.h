#pragma once

#include "command.h"

namespace Tavrin::SplatProgram {

AddCommand addInfoCommand;

} // namespace Tavrin::SplatProgram
