// Large files are removed without having to wait until the system has freed their disk space.
#include "program/system/remove_files.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

#ifndef _WIN32
#include <cerrno>

#include <sys/wait.h>
#endif

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;
using Names = std::set<std::string>;

class RemoveFiles : public testing::Test {
protected:
    support::Scratch scratch;

    // Files without blocks on the disk.
    void make(std::initializer_list<const char*> names, std::uint64_t bytes) const {
        for (const char* name : names) {
            support::writeFile(scratch / name, "x");
            fs::resize_file(scratch / name, bytes);
        }
    }
    Names left() const { return support::filesUnder(scratch.folder()); }
};

TEST_F(RemoveFiles, TheyAreGoneWhenItReturns) {
    for (const std::uint64_t bytes : {std::uint64_t{1000}, std::uint64_t{200'000'000}}) {
        for (const bool waits : {true, false}) {
            make({"one", "two", "kept"}, bytes);
            removeFiles({scratch / "one", scratch / "none", scratch / "two"}, [&] { return waits; });
            EXPECT_EQ(left(), Names{"kept"});
            removeFiles({}, [&] { return waits; });
            removeFiles({scratch / "none"}, [&] { return waits; });
            EXPECT_EQ(left(), Names{"kept"});
        }
    }
}

TEST_F(RemoveFiles, TheFolderGoesWithItsLastFile) {
    fs::create_directory(scratch / "folder");
    make({"folder/one", "folder/kept"}, 200'000'000);
    const auto waits = [] { return false; };
    EXPECT_EQ(removeFiles({scratch / "folder/one"}, waits, scratch / "folder"),
              std::errc::directory_not_empty);
    EXPECT_FALSE(removeFiles({scratch / "folder/kept"}, waits, scratch / "folder"));
    EXPECT_FALSE(fs::exists(scratch / "folder"));
}

#ifndef _WIN32
// The process that frees them has ended by then.
TEST_F(RemoveFiles, WaitsForTheRoom) {
    make({"large"}, 200'000'000);
    while (::waitpid(-1, nullptr, 0) > 0) { // those of the test before
    }
    int asked = 0;
    removeFiles({scratch / "large"}, [&] { return ++asked > 0; });
    EXPECT_GT(asked, 0);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}
#endif

} // namespace
} // namespace Tavrin::SplatProgram
