#include "program/system/platform.h"
#include "program/system/text_windows.h"

#include <windows.h>
// After windows.h, which it needs.
#include <shellapi.h>

namespace Tavrin::SplatProgram {

bool openInBrowser(const std::string& address) {
    constexpr std::intptr_t lastError = 32; // return values of ShellExecute up to this one are errors
    const std::wstring wide = wideFromText(address);
    const HINSTANCE result = ShellExecuteW(nullptr, L"open", wide.c_str(), nullptr, nullptr, SW_SHOWNORMAL);
    return reinterpret_cast<std::intptr_t>(result) > lastError;
}

} // namespace Tavrin::SplatProgram
