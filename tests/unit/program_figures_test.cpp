// Counts, sizes and durations as text for people.
#include "program/terminal/figures.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace Tavrin::SplatProgram {
namespace {

TEST(Figures, CountsHaveThousandsSeparators) {
    EXPECT_EQ(countText(0), "0");
    EXPECT_EQ(countText(999), "999");
    EXPECT_EQ(countText(1'000), "1,000");
    EXPECT_EQ(countText(123'456), "123,456");
    EXPECT_EQ(countText(UINT64_MAX), "18,446,744,073,709,551,615");
}

TEST(Figures, CountsNameWhatTheyCount) {
    EXPECT_EQ(countText(0, "splat", "splats"), "0 splats");
    EXPECT_EQ(countText(1, "splat", "splats"), "1 splat");
    EXPECT_EQ(countText(2, "splat", "splats"), "2 splats");
}

TEST(Figures, BytesAreShownInTheUnitThatFits) {
    EXPECT_EQ(bytesText(0), "0 bytes");
    EXPECT_EQ(bytesText(1), "1 byte");
    EXPECT_EQ(bytesText(1'023), "1,023 bytes");
    EXPECT_EQ(bytesText(1'024), "1.0 KiB");
    EXPECT_EQ(bytesText(1'536), "1.5 KiB");
    EXPECT_EQ(bytesText((1 << 20) - 1), "1.0 MiB"); // not 1024.0 KiB
    EXPECT_EQ(bytesText(std::uint64_t{5} << 40), "5.0 TiB");
    EXPECT_EQ(bytesText(UINT64_MAX), "16.0 EiB");
}

TEST(Figures, DurationsNeverShowSixtySeconds) {
    EXPECT_EQ(durationText(0.0), "0.0 s");
    EXPECT_EQ(durationText(9.94), "9.9 s");
    EXPECT_EQ(durationText(9.96), "10 s");
    EXPECT_EQ(durationText(59.4), "59 s");
    EXPECT_EQ(durationText(59.6), "1:00 min");
    EXPECT_EQ(durationText(185), "3:05 min");
    EXPECT_EQ(durationText(3599.7), "1:00 h");
    EXPECT_EQ(durationText(8100), "2:15 h");
}

TEST(Figures, SizesAreReadWithTheirUnits) {
    EXPECT_EQ(bytesFrom("1"), 1u);
    EXPECT_EQ(bytesFrom("5000000"), 5'000'000u);
    EXPECT_EQ(bytesFrom("512M"), std::uint64_t{512} << 20);
    EXPECT_EQ(bytesFrom("2g"), std::uint64_t{2} << 30);
    EXPECT_EQ(bytesFrom("1.5KiB"), 1'536u);
    EXPECT_EQ(bytesFrom("1gb"), std::uint64_t{1} << 30);
    EXPECT_EQ(bytesFrom("3TB"), std::uint64_t{3} << 40);
}

TEST(Figures, WhatIsNoSizeIsNone) {
    for (const char* text : {"", "0", "-1", "+1", " 1", "1 G", "G", "much", "1GG", "1Mi", "0x10", "inf",
                             "nan", "1e3", "16777216T", "0.5"}) {
        EXPECT_EQ(bytesFrom(text), std::nullopt) << text;
    }
}

} // namespace
} // namespace Tavrin::SplatProgram
