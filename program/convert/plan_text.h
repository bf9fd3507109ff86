// The plan of --dry-run, for people and for machines.
#pragma once

#include "program/convert/plan.h"

#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// The plan for people: lines of "name: value", each with a line feed.
std::string planText(const Plan& plan, const OutputPlace& output);

// The plan for machines: one JSON object on one line. Bytes and counts are numbers, lengths are in scene
// units.
std::string planJson(const Plan& plan, const OutputPlace& output, const std::vector<std::string>& warnings);

} // namespace Tavrin::SplatProgram
