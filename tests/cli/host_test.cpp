// The program's parts whose corners no run of the program reaches easily.
#include "program/system/child_process.h"
#include "program/terminal/console.h"
#include "program/terminal/figures.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using namespace Tavrin::SplatProgram;
using Lines = std::vector<std::string>;

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

TEST(Console, ControlCharactersAreShown) {
    EXPECT_EQ(printable("Straße 1"), "Straße 1");
    EXPECT_EQ(printable("a\nb\r\t\x1b[2J\x7f"), "a\\x0ab\\x0d\\x09\\x1b[2J\\x7f");
    EXPECT_EQ(printable(std::string("a\0b", 3)), "a\\x00b");
}

TEST(LineCollector, DropsBlankLines) {
    LineCollector collector;
    collector.take("\n\n \t\r\nERROR(indexer:548): cannot GET lod0 data\n\n\n");
    collector.finish();
    EXPECT_EQ(collector.lines(), Lines{"ERROR(indexer:548): cannot GET lod0 data"});
}

TEST(LineCollector, JoinsWhatComesInPieces) {
    LineCollector collector;
    for (const char* piece : {"ERR", "OR(a", "", ":1): x\r", "\nnext", "\n", "last"}) {
        collector.take(piece);
    }
    EXPECT_EQ(collector.lines(), (Lines{"ERROR(a:1): x", "next"}));
    collector.finish();
    EXPECT_EQ(collector.lines(), (Lines{"ERROR(a:1): x", "next", "last"}));
}

TEST(LineCollector, KeepsABoundedAmount) {
    LineCollector collector;
    const std::string longText(1 << 20, 'x');
    for (int i = 0; i < 1000; ++i) {
        collector.take(longText);
        collector.take("\n");
    }
    std::size_t bytes = 0;
    for (const std::string& line : collector.lines()) {
        bytes += line.size();
    }
    EXPECT_FALSE(collector.lines().empty());
    EXPECT_LE(bytes, std::size_t{1} << 20);
}

} // namespace
