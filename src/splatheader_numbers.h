// Parses header numbers. Accepts what the standard's string conversions accept in the C locale. Error texts
// do not depend on the C++ library.
#pragma once

#include <cstdint>
#include <string_view>

namespace Tavrin::GaussionSplat {

// Decimal and hexadecimal floats, inf, infinity, nan and nan(...), in any case, with an optional sign.
// Leading white space is skipped and trailing text ignored. Throws std::invalid_argument "invalid stof
// argument" and std::out_of_range "stof argument out of range". A value too small for single precision is out
// of range; a subnormal is not.
float parseFloat(std::string_view text);

// Base 10, with an optional sign. "invalid stoi argument", "stoi argument out of range".
std::int32_t parseInt32(std::string_view text);

// Base 10, with an optional sign. "invalid stoll argument", "stoll argument out of range".
std::int64_t parseInt64(std::string_view text);

} // namespace Tavrin::GaussionSplat
