#include "src/platform.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string_view>

#if defined(_WIN32)
#define NOMINMAX
#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <malloc.h>
#include <process.h>
#elif defined(__linux__)
#include <sys/mman.h>
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

void flushStandardOutput() {
    std::cout.flush();
    std::fflush(stdout);
}

} // namespace

const char* AllocationError::what() const noexcept {
    return "bad allocation";
}

void endProcess(int status) {
    flushStandardOutput();
    std::exit(status);
}

void endProcessFromWorker(int status) {
    flushStandardOutput();
    std::_Exit(status);
}

#if defined(_WIN32)

namespace {

constexpr UINT utf8CodePage = 65001;

// A host with the universal runtime can have a UTF-8 locale; the older runtime cannot, so its answer alone
// would never be 65001.
UINT localeCodePage() {
    using CodePageFunction = unsigned int(__cdecl*)();
    if (const HMODULE runtime = GetModuleHandleW(L"ucrtbase.dll")) {
        const FARPROC address = GetProcAddress(runtime, "___lc_codepage_func");
        if (address != nullptr) {
            return reinterpret_cast<CodePageFunction>(reinterpret_cast<void*>(address))();
        }
    }
    return ___lc_codepage_func();
}

UINT pathCodePage() {
    if (localeCodePage() == utf8CodePage) {
        return utf8CodePage;
    }
    return AreFileApisANSI() ? CP_ACP : CP_OEMCP;
}

std::wstring widen(std::string_view text) {
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
    return std::filesystem::path(widen(path));
}

std::string lastPathComponent(const std::string& path) {
    // In wide characters: a trailing byte of a double-byte code page may look like a backslash.
    return narrow(lastComponent<wchar_t>(widen(path)));
}

void* allocateLarge(std::uint64_t bytes) {
    void* const block = _aligned_malloc(std::max<std::uint64_t>(bytes, 1), 64);
    if (block == nullptr) {
        throw AllocationError();
    }
    return block;
}

void freeLarge(void* block) noexcept {
    _aligned_free(block);
}

#else

std::filesystem::path nativePath(const std::string& path) {
    return std::filesystem::path(path);
}

std::string lastPathComponent(const std::string& path) {
    return lastComponent<char>(path);
}

void* allocateLarge(std::uint64_t bytes) {
    constexpr std::uint64_t hugePage = std::uint64_t{2} << 20;
    constexpr std::uint64_t cacheLine = 64;
    const std::uint64_t alignment = bytes >= hugePage ? hugePage : cacheLine;
    if (bytes > PTRDIFF_MAX - alignment) {
        throw AllocationError();
    }
    const std::uint64_t size = (std::max<std::uint64_t>(bytes, 1) + alignment - 1) / alignment * alignment;
    void* const block = std::aligned_alloc(alignment, size);
    if (block == nullptr) {
        throw AllocationError();
    }
#if defined(__linux__)
    if (alignment == hugePage) {
        // Advice only: where it is refused the block stays on ordinary pages.
        (void)madvise(block, bytes, MADV_HUGEPAGE);
    }
#endif
    return block;
}

void freeLarge(void* block) noexcept {
    std::free(block);
}

#endif

} // namespace Tavrin::GaussionSplat
