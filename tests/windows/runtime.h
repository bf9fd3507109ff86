// Access to the universal C runtime, beside the runtime that the tests are linked with.
#pragma once

#include <clocale>

#include <windows.h>

namespace windows_test {

// Sets the universal runtime's locale, as a host linked with it does by setlocale. False if the runtime
// cannot be loaded or does not know the name.
inline bool setUniversalLocale(const char* name) {
    using SetLocale = char*(__cdecl*)(int, const char*);
    const HMODULE runtime = LoadLibraryW(L"ucrtbase.dll");
    const FARPROC address = runtime != nullptr ? GetProcAddress(runtime, "setlocale") : nullptr;
    return address != nullptr &&
           reinterpret_cast<SetLocale>(reinterpret_cast<void*>(address))(LC_ALL, name) != nullptr;
}

} // namespace windows_test
