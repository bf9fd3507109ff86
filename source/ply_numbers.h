// Parses the numbers of text PLY files, whatever the locale.
#pragma once

#include "source/ply_header.h"

#include <cstddef>
#include <string_view>

namespace Tavrin::SplatSource {

// Writes the number to `value`, in the machine's form of the type: widthOf(type) bytes. Reals may have an
// exponent and a plus, and may be inf or nan. Too large ones become infinite, too small ones 0. False if the
// word is not a number or, for an integer type, not a whole number in its range.
bool parseScalar(std::string_view word, Scalar type, std::byte* value);

// Reads the count of a list. False if the word is not a whole number from 0 on that fits the type.
bool parseListCount(std::string_view word, Scalar type, std::uint64_t& count);

} // namespace Tavrin::SplatSource
