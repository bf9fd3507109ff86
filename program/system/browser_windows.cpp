#include "program/system/platform.h"
#include "program/system/text_windows.h"

#include <windows.h>
// Needs the former.
#include <shellapi.h>

namespace Tavrin::SplatProgram {

bool openInBrowser(const std::string& address) {
    constexpr std::intptr_t lastError = 32; // what ShellExecute returns is an error up to here
    const std::wstring wide = wideFromText(address);
    const HINSTANCE result = ShellExecuteW(nullptr, L"open", wide.c_str(), nullptr, nullptr, SW_SHOWNORMAL);
    return reinterpret_cast<std::intptr_t>(result) > lastError;
}

} // namespace Tavrin::SplatProgram
