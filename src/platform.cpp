#include "src/platform.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string_view>

#if defined(_WIN32)
#include <clocale>

#include <windows.h>

#include <xmmintrin.h>
#else
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace Tavrin::GaussionSplat {

namespace {

// Length of the root name: "C:", "\\server", or the three characters of "\\?" and "\\.".
template <typename Character>
std::size_t rootNameLength(std::basic_string_view<Character> path) {
    const auto isSeparator = [](Character c) { return c == Character('/') || c == Character('\\'); };
    if (path.size() >= 2 && path[1] == Character(':')) {
        const Character letter = path[0];
        if ((letter >= Character('A') && letter <= Character('Z')) ||
            (letter >= Character('a') && letter <= Character('z'))) {
            return 2;
        }
    }
    if (path.size() >= 3 && isSeparator(path[0]) && isSeparator(path[1]) && !isSeparator(path[2])) {
        const auto end = std::find_if(path.begin() + 2, path.end(), isSeparator);
        return static_cast<std::size_t>(end - path.begin());
    }
    return 0;
}

template <typename Character>
std::basic_string<Character> lastComponent(std::basic_string_view<Character> path) {
    path.remove_prefix(rootNameLength(path));
    static constexpr Character separators[] = {Character('/'), Character('\\'), Character(0)};
    const std::size_t last = path.find_last_of(separators);
    return std::basic_string<Character>(last == path.npos ? path : path.substr(last + 1));
}

// Made while the library is loaded, at the latest: not every system's mutex is a constant expression.
std::mutex standardOutput;

void flushStandardOutput() {
    std::cout.flush();
    std::fflush(stdout);
}

} // namespace

// On Windows, fesetenv(FE_DFL_ENV) leaves all or part of the vector unit's control register as it is, and
// that unit does all our arithmetic. New threads start with the default register there. Elsewhere they
// inherit the register of the thread that made them.
DefaultFloatEnvironment::DefaultFloatEnvironment() {
    std::fegetenv(&environment);
#if defined(_WIN32)
    constexpr unsigned defaultControl = 0x1F80; // round to nearest, subnormals as they are, no traps
    vectorControl = _mm_getcsr();
    std::fesetenv(FE_DFL_ENV);
    _mm_setcsr(defaultControl);
#else
    std::fesetenv(FE_DFL_ENV);
#endif
}

DefaultFloatEnvironment::~DefaultFloatEnvironment() {
    std::fesetenv(&environment);
#if defined(_WIN32)
    _mm_setcsr(vectorControl);
#endif
}

std::unique_lock<std::mutex> lockStandardOutput() {
    return std::unique_lock(standardOutput);
}

void endProcess(int status) {
    flushStandardOutput();
    std::exit(status);
}

void endProcessFromWorker(int status) {
    const std::unique_lock lock = lockStandardOutput();
    flushStandardOutput();
    std::_Exit(status);
}

#if defined(_WIN32)

// The runtime reserves descriptors 0 to 2 for the standard streams, even in a process started without any.
StandardStreams::StandardStreams() = default;
StandardStreams::~StandardStreams() = default;

namespace {

constexpr UINT utf8CodePage = 65001;

// Whether the runtime's locale is a UTF-8 one. The library may be linked against the older runtime, which has
// no such locale, while the host uses the universal runtime and a UTF-8 locale.
bool localeIsUtf8() {
    if (___lc_codepage_func() == utf8CodePage) {
        return true;
    }
    using CodePageFunction = unsigned int(__cdecl*)();
    const HMODULE runtime = GetModuleHandleW(L"ucrtbase.dll");
    const FARPROC address = runtime != nullptr ? GetProcAddress(runtime, "___lc_codepage_func") : nullptr;
    return address != nullptr &&
           reinterpret_cast<CodePageFunction>(reinterpret_cast<void*>(address))() == utf8CodePage;
}

UINT pathCodePage() {
    if (localeIsUtf8()) {
        return utf8CodePage;
    }
    return AreFileApisANSI() ? CP_ACP : CP_OEMCP;
}

std::wstring toWide(std::string_view text) {
    if (text.empty()) {
        return {};
    }
    const UINT codePage = pathCodePage();
    const int length =
        MultiByteToWideChar(codePage, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length), L'\0');
    MultiByteToWideChar(codePage, 0, text.data(), static_cast<int>(text.size()), wide.data(), length);
    return wide;
}

std::string narrow(std::wstring_view wide) {
    if (wide.empty()) {
        return {};
    }
    const UINT codePage = pathCodePage();
    const int length = WideCharToMultiByte(codePage, 0, wide.data(), static_cast<int>(wide.size()), nullptr,
                                           0, nullptr, nullptr);
    std::string text(static_cast<std::size_t>(length), '\0');
    WideCharToMultiByte(codePage, 0, wide.data(), static_cast<int>(wide.size()), text.data(), length, nullptr,
                        nullptr);
    return text;
}

} // namespace

std::filesystem::path nativePath(const std::string& path) {
    return std::filesystem::path(toWide(path));
}

std::string lastPathComponent(const std::string& path) {
    // Wide characters are needed: a trailing byte of a double-byte code page may look like a backslash.
    return narrow(lastComponent<wchar_t>(toWide(path)));
}

#else

namespace {

StandardStreams::Opened identify(int descriptor) {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) {
        return {};
    }
    return {.isOpen = true,
            .device = static_cast<std::uint64_t>(status.st_dev),
            .file = static_cast<std::uint64_t>(status.st_ino)};
}

} // namespace

StandardStreams::StandardStreams() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) != -1 || errno != EBADF) {
            continue;
        }
        const int nowhere =
            open("/dev/null", O_RDWR | O_CLOEXEC); // gets the lowest free descriptor: this one
        if (nowhere == descriptor) {
            opened[descriptor] = identify(descriptor);
        } else if (nowhere > descriptor) {
            (void)close(nowhere);
        }
    }
}

StandardStreams::~StandardStreams() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        const Opened& mine = opened[descriptor];
        const Opened now = identify(descriptor);
        if (mine.isOpen && now.isOpen && now.device == mine.device && now.file == mine.file) {
            (void)close(descriptor);
        }
    }
}

std::filesystem::path nativePath(const std::string& path) {
    return std::filesystem::path(path);
}

std::string lastPathComponent(const std::string& path) {
    return lastComponent<char>(path);
}

#endif

} // namespace Tavrin::GaussionSplat
