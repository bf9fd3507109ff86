// The subcommand `catalogue`.
#pragma once

#include "program/commands/command.h"

namespace Tavrin::SplatProgram {

// What the list of subcommands says of it.
inline constexpr const char* catalogueSummary = "Write a catalogue for geo tools: DATASET... CITY.json";

AddCommand addCatalogueCommand;

} // namespace Tavrin::SplatProgram
