#include "src/large_pages.h"

#include <algorithm>

#if defined(_WIN32)
#include <malloc.h>
#else
#include <cstdlib>
#if defined(__linux__)
#include <cerrno>

#include <sys/mman.h>
#include <unistd.h>
#endif
#endif

// The address sanitizer sees overruns of heap blocks only. So under it every block comes from the heap.
#if defined(__linux__) && defined(MREMAP_DONTUNMAP) && !defined(__SANITIZE_ADDRESS__)
#define PLYCONVERT_LARGE_PAGES 1
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#undef PLYCONVERT_LARGE_PAGES
#endif
#endif

namespace Tavrin::GaussionSplat {

const char* AllocationError::what() const noexcept {
    return "bad allocation";
}

namespace {

constexpr std::uint64_t alignment = 64; // bytes: a cache line

#if defined(_WIN32)

void* allocateAligned(std::uint64_t bytes) {
    if (bytes > PTRDIFF_MAX - 2 * alignment) { // the runtime adds room for the alignment without a check
        throw AllocationError();
    }
    void* const block = _aligned_malloc(std::max<std::uint64_t>(bytes, 1), alignment);
    if (block == nullptr) {
        throw AllocationError();
    }
    return block;
}

void freeAligned(void* block) noexcept {
    _aligned_free(block);
}

#else

void* allocateAligned(std::uint64_t bytes) {
    if (bytes > PTRDIFF_MAX - alignment) {
        throw AllocationError();
    }
    const std::uint64_t size = (std::max<std::uint64_t>(bytes, 1) + alignment - 1) / alignment * alignment;
    void* const block = std::aligned_alloc(alignment, size);
    if (block == nullptr) {
        throw AllocationError();
    }
    return block;
}

void freeAligned(void* block) noexcept {
    std::free(block);
}

#endif

} // namespace

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
    // Map one page too many, then unmap what lies before and behind the aligned block.
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
    useLargePages(start + before, size);
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
    // The source stays mapped. Otherwise another thread's mapping could get its addresses before the block is
    // freed.
    if (mremap(from, largePage, largePage, MREMAP_MAYMOVE | MREMAP_FIXED | MREMAP_DONTUNMAP, to) !=
        MAP_FAILED) {
        return true;
    }
    // The failure may have unmapped the target. If so, this maps it again. If not, it fails with EEXIST.
    void* const again =
        mmap(to, largePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    if (again == MAP_FAILED && errno != EEXIST) {
        throw AllocationError();
    }
    return false;
}

void useLargePages(void* part, std::uint64_t bytes) noexcept {
    (void)madvise(part, bytes, MADV_HUGEPAGE); // if the system refuses, the part stays on ordinary pages
}

// The part is rounded outwards to the system's pages. Advice changes no content beside it.
void useOrdinaryPages(void* part, std::uint64_t bytes) noexcept {
    static const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto start = reinterpret_cast<std::uintptr_t>(part) / page * page;
    const auto end = (reinterpret_cast<std::uintptr_t>(part) + bytes + page - 1) / page * page;
    (void)madvise(reinterpret_cast<void*>(start), end - start, MADV_NOHUGEPAGE);
}

void releaseLargePage(void* page) noexcept {
    (void)madvise(page, largePage, MADV_DONTNEED);
}

// Linux before 5.7 and some sandboxes refuse the call, whatever the headers promise. So it is tried once,
// with an untouched page.
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

void useLargePages(void*, std::uint64_t) noexcept {}

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
