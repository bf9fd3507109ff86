// The subcommand `catalogue`.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

// Its line in the list of subcommands.
inline constexpr const char* catalogueSummary = "Write a catalogue for geo tools: DATASET... CITY.json";

AddCommand addCatalogueCommand;

} // namespace Tavrin::SplatProgram
