// Memory for large blocks, on huge pages. Where the system offers it, pages move from one block to another.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace Tavrin::GaussionSplat {

// The allocation error with the library's own text, the same on every C++ runtime.
struct AllocationError : std::bad_alloc {
    const char* what() const noexcept override;
};

// Bytes of a huge page, the unit in which memory moves. Blocks of at least that size are aligned to it.
inline constexpr std::uint64_t largePage = std::uint64_t{2} << 20;

// Uninitialised memory for large blocks, aligned to 64 bytes or better. It is on huge pages where the system
// grants them: clearing 4 KiB pages one fault at a time costs as much as decoding. Throws AllocationError.
// The caller frees it with freeLarge, giving the same size; a null pointer is allowed there.
void* allocateLarge(std::uint64_t bytes);
void freeLarge(void* block, std::uint64_t bytes) noexcept;

// Put the memory of one large page in the place of another, whose content is lost: each a whole largePage of
// an allocation, aligned to that. What stood at from then stands at to, and from reads as zeros.
// False, and nothing moved, where the system does not offer it. Throws AllocationError when the system fails
// half-way and the addresses of `to` cannot be mapped again.
bool moveLargePage(void* from, void* to);

// Whether moveLargePage succeeds here, as far as the system tells beforehand.
bool largePagesMove() noexcept;

// Advise the system to use huge pages for a part of an allocation, whole large pages aligned to that.
void useLargePages(void* part, std::uint64_t bytes) noexcept;

// Advise the system to use ordinary pages, which it clears one by one as they are touched, for a part of an
// allocation.
void useOrdinaryPages(void* part, std::uint64_t bytes) noexcept;

// Give a whole large page that nobody reads any more back to the system. Its addresses stay.
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

} // namespace Tavrin::GaussionSplat
