// The subcommand `catalogue`.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

AddCommand addCatalogueCommand;

} // namespace Tavrin::SplatProgram
