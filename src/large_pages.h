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
// grants them, because clearing 4 KiB pages one fault at a time costs as much as decoding. Throws
// AllocationError. The caller frees it with freeLarge, giving the same size; freeLarge accepts a null
// pointer.
void* allocateLarge(std::uint64_t bytes);
void freeLarge(void* block, std::uint64_t bytes) noexcept;

// Move the memory of one huge page to the place of another, whose content is lost. `from` and `to` are each a
// whole, aligned largePage of an allocation. Afterwards `to` holds the content of `from`, and `from` reads as
// zeros. Returns false, with nothing moved, where the system does not offer it. Throws AllocationError when
// the system fails half-way and the addresses of `to` cannot be mapped again.
bool moveLargePage(void* from, void* to);

// True if moveLargePage works here, as far as the system tells beforehand.
bool largePagesMove() noexcept;

// Advise the system to use huge pages for a part of an allocation. The part is whole, aligned huge pages.
void useLargePages(void* part, std::uint64_t bytes) noexcept;

// Advise the system to use ordinary pages for a part of an allocation. It clears these one by one as they are
// touched.
void useOrdinaryPages(void* part, std::uint64_t bytes) noexcept;

// Give a whole huge page that nobody reads any more back to the system. Its addresses stay valid.
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
