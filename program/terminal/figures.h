// Numbers as people read them.
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

// The bytes of "5000", "812K", "512M", "1.5GiB" or "2T", whose units are powers of 1,024; nothing for any
// other text, for none and for more than 64 bits hold.
std::optional<std::uint64_t> bytesFrom(std::string_view text);

// "0.4 s", "12 s", "3:05 min", "2:15 h"
std::string durationText(double seconds);

} // namespace Tavrin::SplatProgram
