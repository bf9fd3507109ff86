// UTF-8, which the program's own texts are in, and the system's UTF-16. Windows only.
#pragma once

#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {

// What is no text in the one form becomes a replacement character in the other.
std::wstring wideFromText(std::string_view text);
std::string textFromWide(std::wstring_view wide);

} // namespace Tavrin::SplatProgram
