// plyconvert view: shows datasets in the browser.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addViewCommand;

} // namespace Tavrin::SplatProgram
