// The ways in which a header's numbers end a conversion.
#pragma once

#include <array>

namespace support {

// Kind and text of every exception that a number of a header can lead to.
inline constexpr std::array<const char*, 6> headerErrors = {
    "invalid_argument invalid stof argument",  "invalid_argument invalid stoi argument",
    "invalid_argument invalid stoll argument", "out_of_range stof argument out of range",
    "out_of_range stoi argument out of range", "out_of_range stoll argument out of range"};

} // namespace support
