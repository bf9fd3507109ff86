// plyconvert info: prints facts about a scene or a dataset.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addInfoCommand;

} // namespace Tavrin::SplatProgram
