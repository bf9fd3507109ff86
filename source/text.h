// Text functions that the readers share: words of a line, and quotes in messages.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatSource {

// The words of a line, separated by runs of blanks, tabs and carriage returns.
std::vector<std::string_view> wordsOf(std::string_view line);

// Text of a file for a message: at most 40 characters in double quotes, control characters as question marks.
std::string inQuotes(std::string_view text);

// "1,234".
std::string grouped(std::uint64_t count);

// "1,234 NOUN" with the singular for 1.
std::string countOf(std::uint64_t count, const char* singular, const char* plural);

} // namespace Tavrin::SplatSource
