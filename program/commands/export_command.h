#pragma once

#include "command.h"

namespace Tavrin::SplatProgram {

AddCommand addExportCommand;

} // namespace Tavrin::SplatProgram
