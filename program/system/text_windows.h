// Converts between the program's UTF-8 and the system's UTF-16. Windows only.
#pragma once

#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {

// Invalid input becomes replacement characters.
std::wstring wideFromText(std::string_view text);
std::string textFromWide(std::wstring_view wide);

} // namespace Tavrin::SplatProgram
