// The exceptions that a header's numbers can cause.
#pragma once

#include <array>

namespace support {

// Kind and text of each.
inline constexpr std::array<const char*, 6> headerErrors = {
    "invalid_argument invalid stof argument",  "invalid_argument invalid stoi argument",
    "invalid_argument invalid stoll argument", "out_of_range stof argument out of range",
    "out_of_range stoi argument out of range", "out_of_range stoll argument out of range"};

} // namespace support
