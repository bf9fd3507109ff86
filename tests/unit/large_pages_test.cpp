#include "src/large_pages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

#if defined(__linux__)
#include <sys/mman.h>
#endif

#if defined(__GNUC__)
// Makes a failed allocation return an error under the address sanitizer, too, instead of ending the process.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
#endif

namespace Tavrin::GaussionSplat {

namespace {

TEST(AllocationError, IsABadAllocWithItsOwnText) {
    try {
        throw AllocationError();
    } catch (const std::bad_alloc& error) {
        EXPECT_STREQ(error.what(), "bad allocation");
    }
}

TEST(AllocateLarge, GivesWritableAlignedMemory) {
    for (const std::uint64_t bytes :
         {std::uint64_t{0}, std::uint64_t{1}, std::uint64_t{63}, std::uint64_t{64}, std::uint64_t{4097},
          (std::uint64_t{2} << 20) - 1, std::uint64_t{2} << 20, (std::uint64_t{2} << 20) + 1,
          std::uint64_t{5'000'001}}) {
        void* const block = allocateLarge(bytes);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 64, 0u) << bytes;
        std::memset(block, 0xA5, bytes);
        freeLarge(block, bytes);
    }
}

TEST(AllocateLarge, RefusesWhatNoMachineHas) {
    constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
    for (const std::uint64_t bytes : {most, most / 2, most / 2 + 1, most - 63, most / 4}) {
        EXPECT_THROW(freeLarge(allocateLarge(bytes), bytes), AllocationError) << bytes;
    }
}

TEST(AllocateLarge, ArrayRefusesAByteCountBeyondTheAddressRange) {
    const std::uint64_t count =
        std::numeric_limits<std::uint64_t>::max() / sizeof(float) + 2; // 4 bytes, wrapped
    EXPECT_THROW(makeLargeArray<float>(count), AllocationError);
}

TEST(FreeLarge, AllowsNull) {
    freeLarge(nullptr, 0);
    freeLarge(nullptr, 2 * largePage);
    FreeLarge()(nullptr);
}

// If the system can move pages, their content moves and nothing else changes. Otherwise nothing changes at
// all.
TEST(MoveLargePage, MovesOnePageAndLeavesItsNeighbours) {
    constexpr std::uint64_t pages = 3;
    const LargeArray<unsigned char> from = makeLargeArray<unsigned char>(pages * largePage);
    const LargeArray<unsigned char> to = makeLargeArray<unsigned char>(pages * largePage);
    std::memset(from.get(), 0x11, pages * largePage);
    std::memset(to.get(), 0x22, largePage);
    std::memset(to.get() + 2 * largePage, 0x33, largePage);
    std::memset(from.get() + largePage, 0x44, largePage);
    const bool moved = moveLargePage(from.get() + largePage, to.get() + largePage);
    EXPECT_TRUE(largePagesMove() || !moved);
    const auto all = [](const unsigned char* page, unsigned char value) {
        return std::all_of(page, page + largePage, [value](unsigned char byte) { return byte == value; });
    };
    EXPECT_TRUE(all(from.get(), 0x11));
    EXPECT_TRUE(all(from.get() + largePage, moved ? 0x00 : 0x44));
    EXPECT_TRUE(all(from.get() + 2 * largePage, 0x11));
    EXPECT_TRUE(all(to.get(), 0x22));
    EXPECT_TRUE(!moved || all(to.get() + largePage, 0x44));
    EXPECT_TRUE(all(to.get() + 2 * largePage, 0x33));
    to.get()[largePage] = 0x55; // writable in any case
    from.get()[largePage] = 0x66;
}

// True if the ordinary page of an address is in memory.
bool isResident([[maybe_unused]] const void* address) {
#if defined(__linux__)
    constexpr std::uintptr_t page = 4096;
    unsigned char present = 0;
    void* const start = reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(address) / page * page);
    return mincore(start, 1, &present) == 0 && (present & 1) != 0;
#else
    return false;
#endif
}

TEST(LargeBlocks, HaveOrdinaryPagesWhereAsked) {
    constexpr std::uint64_t size = 3 * largePage + 100;
    const LargeArray<unsigned char> block = makeLargeArray<unsigned char>(size);
    useOrdinaryPages(block.get() + largePage, size - largePage);
    block.get()[largePage] = 1;
    if (largePagesMove()) { // otherwise another allocator is used
        EXPECT_TRUE(isResident(block.get() + largePage));
        EXPECT_FALSE(isResident(block.get() + largePage + largePage / 2));
    }
    std::fill_n(block.get(), size, static_cast<unsigned char>(0x77));
    EXPECT_TRUE(
        std::all_of(block.get(), block.get() + size, [](unsigned char byte) { return byte == 0x77; }));
}

TEST(LargeBlocks, KeepTheirOtherPagesWhenOneIsReleased) {
    constexpr std::uint64_t size = 3 * largePage;
    const LargeArray<unsigned char> block = makeLargeArray<unsigned char>(size);
    std::fill_n(block.get(), size, static_cast<unsigned char>(0x77));
    releaseLargePage(block.get() + largePage);
    const auto isKept = [](unsigned char byte) { return byte == 0x77; };
    EXPECT_TRUE(std::all_of(block.get(), block.get() + largePage, isKept));
    EXPECT_TRUE(std::all_of(block.get() + 2 * largePage, block.get() + size, isKept));
    EXPECT_TRUE(!largePagesMove() || block.get()[largePage] == 0x00);
    block.get()[largePage] = 0x55; // its addresses stay valid
    EXPECT_EQ(block.get()[largePage], 0x55);
}

} // namespace

} // namespace Tavrin::GaussionSplat
