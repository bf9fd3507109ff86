// Formats numbers for people, and parses sizes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {

// "1,234,567"
std::string countText(std::uint64_t count);

// "1 splat", "2 splats"
std::string countText(std::uint64_t count, const char* singular, const char* plural);

// "812 bytes", "36.6 MiB"
std::string bytesText(std::uint64_t bytes);

// Parses a size in bytes: "5000", "812K", "512M", "1.5GiB" or "2T", in powers of 1,024. Nothing for any other
// text, for 0, and for sizes beyond 64 bits.
std::optional<std::uint64_t> bytesFrom(std::string_view text);

// "0.4 s", "12 s", "3:05 min", "2:15 h"
std::string durationText(double seconds);

} // namespace Tavrin::SplatProgram
