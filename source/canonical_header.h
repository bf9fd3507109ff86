// The header of a PLY file in the canonical form: what a scene's records need to be converted by the library.
#pragma once

#include "src/records.h"

#include <cstdint>
#include <string>

namespace Tavrin::SplatSource {

// Up to and including end_header and its line feed. The converter's header reader gets the same parameters
// from its comments; `statesBounds` says whether bounds are among them. The words of source and dataType have
// no blanks.
std::string canonicalHeader(const GaussionSplat::Params& params, bool statesBounds, std::uint64_t splats,
                            bool hasCoefficients);

// True when a comment line can hold the text as one value, and the meta document too: one word of UTF-8
// without quotes, backslashes and control characters.
bool isCommentWord(const std::string& text);

} // namespace Tavrin::SplatSource
