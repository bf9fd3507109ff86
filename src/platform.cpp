#include "src/platform.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string_view>

#if defined(_WIN32)
#include <clocale>
#include <malloc.h>
#include <windows.h>
#include <xmmintrin.h>
#else
#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#if defined(__linux__)
#include <sys/mman.h>
#endif
#endif

// The address sanitizer sees overruns of blocks from the heap alone, so under it every block comes from
// there.
#if defined(__linux__) && defined(MREMAP_DONTUNMAP) && !defined(__SANITIZE_ADDRESS__)
#define PLYCONVERT_LARGE_PAGES 1
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#undef PLYCONVERT_LARGE_PAGES
#endif
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

// The runtimes of Windows leave the control register of the vector unit, which does all our arithmetic, as it
// is in fesetenv(FE_DFL_ENV), or a part of it. New threads start with the default one there, and inherit
// their maker's elsewhere.
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

const char* AllocationError::what() const noexcept {
    return "bad allocation";
}

const char* nameOf(Kernels kernels) {
    return kernels == Kernels::avx2 ? "avx2" : "baseline";
}

std::vector<Kernels> supportedKernels() {
    std::vector<Kernels> supported;
#if PLYCONVERT_AVX2
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2") != 0) {
        supported.push_back(Kernels::avx2);
    }
#endif
    supported.push_back(Kernels::baseline);
    return supported;
}

namespace {

Kernels chooseKernels() {
    const std::vector<Kernels> supported = supportedKernels();
    const char* const wanted = std::getenv("PLYCONVERT_KERNELS");
    for (const Kernels kernels : supported) {
        if (wanted != nullptr && std::string_view(wanted) == nameOf(kernels)) {
            return kernels;
        }
    }
    return supported.front();
}

const Kernels chosen = chooseKernels();

} // namespace

Kernels chosenKernels() {
    return chosen;
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

// The runtime keeps descriptors 0 to 2 for the standard streams of a process that was started without any.
StandardStreams::StandardStreams() = default;
StandardStreams::~StandardStreams() = default;

namespace {

constexpr UINT utf8CodePage = 65001;

// Whether the locale of the runtime is a UTF-8 one. The library may be linked against the older runtime,
// which has no such locale, while its host's locale is that of the universal one.
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

namespace {

void* allocateAligned(std::uint64_t bytes) {
    if (bytes > PTRDIFF_MAX - 2 * cacheLine) { // the runtime adds room for the alignment without a check
        throw AllocationError();
    }
    void* const block = _aligned_malloc(std::max<std::uint64_t>(bytes, 1), cacheLine);
    if (block == nullptr) {
        throw AllocationError();
    }
    return block;
}

void freeAligned(void* block) noexcept {
    _aligned_free(block);
}

} // namespace

#else

StandardStreams::StandardStreams() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (fcntl(descriptor, F_GETFD) != -1 || errno != EBADF) {
            continue;
        }
        const int nowhere =
            open("/dev/null", O_RDWR | O_CLOEXEC); // gets the lowest free descriptor: this one
        isOpenedHere[descriptor] = nowhere == descriptor;
        if (nowhere > descriptor) {
            (void)close(nowhere);
        }
    }
}

StandardStreams::~StandardStreams() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
        if (isOpenedHere[descriptor]) {
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

namespace {

void* allocateAligned(std::uint64_t bytes) {
    if (bytes > PTRDIFF_MAX - cacheLine) {
        throw AllocationError();
    }
    const std::uint64_t size = (std::max<std::uint64_t>(bytes, 1) + cacheLine - 1) / cacheLine * cacheLine;
    void* const block = std::aligned_alloc(cacheLine, size);
    if (block == nullptr) {
        throw AllocationError();
    }
    return block;
}

void freeAligned(void* block) noexcept {
    std::free(block);
}

} // namespace

#endif

#if defined(PLYCONVERT_LARGE_PAGES)

namespace {

std::uint64_t roundUp(std::uint64_t bytes) {
    return (bytes + largePage - 1) / largePage * largePage;
}

} // namespace

void* allocateLarge(std::uint64_t bytes) {
    if (bytes < largePage) {
        return allocateAligned(bytes);
    }
    if (bytes > PTRDIFF_MAX - 2 * largePage) {
        throw AllocationError();
    }
    // One page more than asked for, of which the parts before and behind the aligned block are given back.
    const std::uint64_t size = roundUp(bytes);
    void* const mapping =
        mmap(nullptr, size + largePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED) {
        throw AllocationError();
    }
    auto* const start = static_cast<std::byte*>(mapping);
    const std::uint64_t before =
        roundUp(reinterpret_cast<std::uintptr_t>(start)) - reinterpret_cast<std::uintptr_t>(start);
    if (before > 0) {
        (void)munmap(start, before);
    }
    (void)munmap(start + before + size, largePage - before);
    (void)madvise(start + before, size,
                  MADV_HUGEPAGE); // where it is refused the block stays on ordinary pages
    return start + before;
}

void freeLarge(void* block, std::uint64_t bytes) noexcept {
    if (block == nullptr || bytes < largePage) {
        freeAligned(block);
    } else {
        (void)munmap(block, roundUp(bytes));
    }
}

bool moveLargePage(void* from, void* to) {
    // The source stays mapped, so that no other thread's mapping can come to lie in the block before it is
    // freed.
    if (mremap(from, largePage, largePage, MREMAP_MAYMOVE | MREMAP_FIXED | MREMAP_DONTUNMAP, to) !=
        MAP_FAILED) {
        return true;
    }
    // A failure may or may not have unmapped the target. Mapping it again succeeds only where it is gone.
    void* const again =
        mmap(to, largePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    if (again == MAP_FAILED && errno != EEXIST) {
        throw AllocationError();
    }
    return false;
}

void useOrdinaryPages(void* part, std::uint64_t bytes) noexcept {
    (void)madvise(part, roundUp(bytes), MADV_NOHUGEPAGE);
}

void releaseLargePage(void* page) noexcept {
    (void)madvise(page, largePage, MADV_DONTNEED);
}

// Kernels before 5.7 refuse, and some sandboxes, whatever the headers promise: tried once, with a page that
// nobody touched.
bool largePagesMove() noexcept {
    static const bool doThey = [] {
        try {
            const LargeArray<std::byte> from = makeLargeArray<std::byte>(largePage);
            const LargeArray<std::byte> to = makeLargeArray<std::byte>(largePage);
            return moveLargePage(from.get(), to.get());
        } catch (const std::bad_alloc&) {
            return false;
        }
    }();
    return doThey;
}

#else

void* allocateLarge(std::uint64_t bytes) {
    return allocateAligned(bytes);
}

void freeLarge(void* block, std::uint64_t) noexcept {
    freeAligned(block);
}

void useOrdinaryPages(void*, std::uint64_t) noexcept {}

void releaseLargePage(void*) noexcept {}

bool largePagesMove() noexcept {
    return false;
}

bool moveLargePage(void*, void*) {
    return false;
}

#endif

} // namespace Tavrin::GaussionSplat
