// The lines that a child process writes.
#include "program/system/child_process.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

using Lines = std::vector<std::string>;

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
} // namespace Tavrin::SplatProgram
