// The sizes of a dataset's text files before they are written.
#pragma once

#include "program/convert/plan.h"

#include <cstdint>

namespace Tavrin::SplatProgram {

// The most bytes that the meta document of a planned dataset takes. All of its text follows from the input's
// header and the box but the value ranges, which only the conversion finds: each of their numbers is counted
// with the longest text that a number has.
std::uint64_t metaBytesAtMost(const Plan& plan);

// The most bytes that the run log takes. It names the folder that the converter is given, which ends in the
// id of the process that will run: the longest id is counted.
std::uint64_t logBytesAtMost(const Plan& plan, const OutputPlace& output);

} // namespace Tavrin::SplatProgram
