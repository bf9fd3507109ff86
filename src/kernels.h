// The choice between translations of the innermost loops, and what these share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// 1 if the build has vectors of four floats.
#if defined(__SSE2__) || defined(_M_X64)
#define PLYCONVERT_SSE2 1
#else
#define PLYCONVERT_SSE2 0
#endif

// 1 if the compiler can translate single functions for wider vectors than the build's own.
#if defined(__GNUC__) && defined(__x86_64__)
#define PLYCONVERT_AVX2 1
#else
#define PLYCONVERT_AVX2 0
#endif

namespace Tavrin::GaussionSplat {

// Translations of the innermost loops for different processors. All give the same bytes.
enum class Kernels : std::uint8_t { baseline, avx2 };

// The kernels that this processor runs, the fastest first.
std::vector<Kernels> supportedKernels();

// The kernels of every conversion: the first of supportedKernels. Only tests set others, while no conversion
// runs.
extern Kernels chosenKernels;

inline constexpr std::size_t cacheLine = 64; // bytes

// Prefetch the cache line of an address. This is a hint without effect on results.
inline void prefetch(const void* address) {
#if defined(__GNUC__)
    __builtin_prefetch(address);
#else
    (void)address;
#endif
}

} // namespace Tavrin::GaussionSplat
