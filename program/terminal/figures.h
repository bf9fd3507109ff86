// Numbers as people read them.
#pragma once

#include <cstdint>
#include <string>

namespace Tavrin::SplatProgram {

// "1,234,567"
std::string countText(std::uint64_t count);

// "1 splat", "2 splats"
std::string countText(std::uint64_t count, const char* singular, const char* plural);

// "812 bytes", "36.6 MiB"
std::string bytesText(std::uint64_t bytes);

// "0.4 s", "12 s", "3:05 min", "2:15 h"
std::string durationText(double seconds);

} // namespace Tavrin::SplatProgram
