// Everything that differs between systems, in one place.
#pragma once

#include <cfenv>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace Tavrin::GaussionSplat {

// A narrow path as the file-system functions want it. UTF-8 on Linux. On Windows the code page is UTF-8 when
// the runtime's locale code page is 65001, else the ANSI code page, or the OEM code page when the file
// functions use that.
std::filesystem::path nativePath(const std::string& path);

// The text after the last '/' or '\' that follows the root name; a root name is a drive letter with its
// colon, or the server part of a network path. Both separators count on every system, since source paths are
// written by compilers.
std::string lastPathComponent(const std::string& path);

// End the process with a status, running the exit handlers of the host. For the thread that called the
// library while no worker runs.
[[noreturn]] void endProcess(int status);

// The same from a worker thread: standard output is flushed and the process ends at once, so that no static
// destructor runs beside the other workers.
[[noreturn]] void endProcessFromWorker(int status);

// The default floating-point environment for as long as the object lives, whatever rounding mode or flushing
// of subnormals the host has set. The host's own is put back afterwards.
struct DefaultFloatEnvironment {
    std::fenv_t environment;    // the host's
    unsigned vectorControl = 0; // the host's MXCSR, where the environment may not hold it

    DefaultFloatEnvironment();
    ~DefaultFloatEnvironment();
    DefaultFloatEnvironment(const DefaultFloatEnvironment&) = delete;
    DefaultFloatEnvironment& operator=(const DefaultFloatEnvironment&) = delete;
};

// Standard streams that the host has closed lead nowhere for as long as the object lives: otherwise the
// system gives their descriptors to the next files that are opened, and what is printed ends up in those.
struct StandardStreams {
    bool isOpenedHere[3] = {}; // by descriptor

    StandardStreams();
    ~StandardStreams();
    StandardStreams(const StandardStreams&) = delete;
    StandardStreams& operator=(const StandardStreams&) = delete;
};

// The allocation error with the library's own text, the same on every C++ runtime.
struct AllocationError : std::bad_alloc {
    const char* what() const noexcept override;
};

// The unit in which memory of large blocks can be handed on, and the alignment of a block of at least that
// size.
inline constexpr std::uint64_t largePage = std::uint64_t{2} << 20;

// Uninitialised memory for large blocks, aligned to 64 bytes or better and on huge pages where the system
// offers them by advice: clearing 4 KiB pages one fault at a time costs as much as decoding. Throws
// AllocationError. The caller frees it with freeLarge, giving the same size; a null pointer is allowed there.
void* allocateLarge(std::uint64_t bytes);
void freeLarge(void* block, std::uint64_t bytes) noexcept;

// Put the memory of one large page in the place of another, untouched one, each a whole largePage of a block
// of at least that size and aligned to it. What stood at from then stands at to, and from reads as zeros.
// False, and nothing moved, where the system does not offer that. Throws AllocationError when the system
// fails half-way and the place cannot be had again.
bool moveLargePage(void* from, void* to);

// Whether moveLargePage succeeds here, as far as the system tells beforehand.
bool largePagesMove() noexcept;

// Have an untouched part of a large block, from a whole large page on to its end, on ordinary pages, which
// the system clears one by one as they are touched, whatever it was advised to before.
void useOrdinaryPages(void* part, std::uint64_t bytes) noexcept;

// Give the memory of a whole large page of a large block back to the system, which may take it or not; nobody
// reads it any more.
void releaseLargePage(void* page) noexcept;

struct FreeLarge {
    std::uint64_t bytes = 0;
    void operator()(void* block) const noexcept { freeLarge(block, bytes); }
};
template <typename Element>
using LargeArray = std::unique_ptr<Element[], FreeLarge>;

template <typename Element>
LargeArray<Element> makeLargeArray(std::uint64_t count) {
    if (count > SIZE_MAX / sizeof(Element)) {
        throw AllocationError();
    }
    const std::uint64_t bytes = count * sizeof(Element);
    return LargeArray<Element>(static_cast<Element*>(allocateLarge(bytes)), FreeLarge{bytes});
}

// A build with vectors of four floats.
#if defined(__SSE2__) || defined(_M_X64)
#define PLYCONVERT_SSE2 1
#else
#define PLYCONVERT_SSE2 0
#endif

// A compiler that can translate single functions for a processor with wider vectors than the build's own.
#if defined(__GNUC__) && defined(__x86_64__)
#define PLYCONVERT_AVX2 1
#else
#define PLYCONVERT_AVX2 0
#endif

// Translations of the innermost loops for different processors. Every one gives the same bytes.
enum class Kernels : std::uint8_t { baseline, avx2 };
const char* nameOf(Kernels kernels);

// Those that this processor runs, the fastest first.
std::vector<Kernels> supportedKernels();

// The first of them unless the environment variable PLYCONVERT_KERNELS names another, by which tests of whole
// conversions choose. Settled while the library is loaded: no worker reads the environment, which a host may
// be changing.
Kernels chosenKernels();

inline constexpr std::size_t cacheLine = 64; // bytes

// Ask for the cache line of an address ahead of its use. A hint without effect on results.
inline void prefetch(const void* address) {
#if defined(__GNUC__)
    __builtin_prefetch(address);
#else
    (void)address;
#endif
}

} // namespace Tavrin::GaussionSplat
