// Number reading for header values: what the standard's string conversions accept, in no locale but the C
// one, with texts of errors that do not depend on the C++ library.
#pragma once

#include <cstdint>
#include <string_view>

namespace Tavrin::GaussionSplat {

// Leading white space is skipped and trailing text ignored. Decimal and hexadecimal floats, inf, infinity,
// nan and nan(...), in any case, with an optional sign. Throws std::invalid_argument "invalid stof argument"
// and std::out_of_range "stof argument out of range"; a value too small for single precision is out of range,
// a subnormal is not.
float parseFloat(std::string_view text);

// Base 10, with an optional sign. "invalid stoi argument", "stoi argument out of range".
std::int32_t parseInt32(std::string_view text);

// Base 10, with an optional sign. "invalid stoll argument", "stoll argument out of range".
std::int64_t parseInt64(std::string_view text);

} // namespace Tavrin::GaussionSplat
