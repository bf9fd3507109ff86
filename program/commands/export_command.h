// plyconvert export: a dataset becomes a scene again.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addExportCommand;

} // namespace Tavrin::SplatProgram
