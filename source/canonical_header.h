// The header of a PLY file in canonical form, which the library can convert.
#pragma once

#include "src/records.h"

#include <cstdint>
#include <string>

namespace Tavrin::SplatSource {

// The header up to and including end_header and its line feed. From its comments the converter reads the same
// `params` again, with bounds if `statesBounds`. The words of source and dataType have no blanks.
std::string canonicalHeader(const GaussionSplat::Params& params, bool statesBounds, std::uint64_t splats,
                            bool hasCoefficients);

// True when both a comment line and the meta document can hold the text as one value: one word of UTF-8
// without quotes, backslashes and control characters.
bool isCommentWord(const std::string& text);

} // namespace Tavrin::SplatSource
