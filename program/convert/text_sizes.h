// Upper bounds for the sizes of a dataset's text files, known before they are written.
#pragma once

#include "program/convert/plan.h"

#include <cstdint>

namespace Tavrin::SplatProgram {

// An upper bound for the bytes of the meta document. All of its text follows from the input's header and the
// box, except the value ranges, which only the conversion finds. Each of their numbers counts with the
// longest text that a number can have.
std::uint64_t metaBytesAtMost(const Plan& plan);

// An upper bound for the bytes of the run log. The log names the partial folder, whose name ends in the
// process id. The longest id is counted.
std::uint64_t logBytesAtMost(const Plan& plan, const OutputPlace& output);

} // namespace Tavrin::SplatProgram
