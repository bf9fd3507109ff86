// The universal C runtime beside the one that the tests are linked against.
#pragma once

#include <clocale>

#include <windows.h>

namespace windows_test {

// Give the universal runtime's locale this name, as a host that is linked against it does with setlocale.
// False where the runtime cannot be loaded or does not know the name.
inline bool setUniversalLocale(const char* name) {
    using SetLocale = char*(__cdecl*)(int, const char*);
    const HMODULE runtime = LoadLibraryW(L"ucrtbase.dll");
    const FARPROC address = runtime != nullptr ? GetProcAddress(runtime, "setlocale") : nullptr;
    return address != nullptr &&
           reinterpret_cast<SetLocale>(reinterpret_cast<void*>(address))(LC_ALL, name) != nullptr;
}

} // namespace windows_test
