// plyconvert export: writes a dataset as a PLY scene.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addExportCommand;

} // namespace Tavrin::SplatProgram
