// Removing files without waiting for the system to free them.
#include "program/system/remove_files.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace Tavrin::SplatProgram {
namespace {

TEST(RemoveLargeFiles, TheyAreGoneWhenItReturns) {
    const support::Scratch scratch;
    for (const char* name : {"one", "two", "kept"}) {
        support::writeFile(scratch / name, std::string(5'000'000, 'x'));
    }
    removeLargeFiles({scratch / "one", scratch / "none", scratch / "two"});
    EXPECT_EQ(support::filesUnder(scratch.folder()), std::set<std::string>{"kept"});
    removeLargeFiles({});
    removeLargeFiles({scratch / "none"});
    EXPECT_EQ(support::filesUnder(scratch.folder()), std::set<std::string>{"kept"});
}

} // namespace
} // namespace Tavrin::SplatProgram
