#include "src/platform.h"

#include "tests/support/deathtest.h"
#include "tests/support/files.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

#if defined(__linux__)
#include <fcntl.h>
#include <unistd.h>
#endif

namespace Tavrin::GaussionSplat {

namespace {

TEST(LastPathComponent, IsWhatFollowsTheLastSeparatorBehindTheRootName) {
    struct Row {
        const char* path;
        const char* component;
    };
    const Row rows[] = {
        {"convert", "convert"},
        {"src/indexer", "indexer"},
        {"src\\indexer", "indexer"},
        {"/home/build/src/chunker.cpp", "chunker.cpp"},
        {"D:/build/src/chunker", "chunker"},
        {"D:\\build\\src\\chunker", "chunker"},
        {"D:\\build/src\\mixed/chunker", "chunker"},
        {"D:chunker", "chunker"}, // a drive letter is not part of the component
        {"d:chunker", "chunker"},
        {"D:", ""},
        {"1:chunker", "1:chunker"}, // no drive
        {"src/D:chunker", "D:chunker"},
        {"\\\\server\\share\\src\\chunker", "chunker"},
        {"//server/share/chunker", "chunker"},
        {"\\\\server\\chunker", "chunker"},
        {"\\\\server", ""}, // nor is the prefix of a network share
        {"\\\\?\\C:\\src\\chunker", "chunker"},
        {"src/", ""},
        {"src\\", ""},
        {"/", ""},
        {"", ""},
        {"a name with blanks", "a name with blanks"},
        {"ordner/\xC3\xBC"
         "ber.cpp",
         "\xC3\xBC"
         "ber.cpp"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(lastPathComponent(row.path), row.component) << row.path;
    }
}

#if !defined(_WIN32)
TEST(NativePath, TakesTheBytesAsTheyStand) {
    for (const char* path : {"", "a/b", "/x//y/", "a\\b", "\xC3\xA4/\xE6\xBC\xA2", "not \xFF UTF-8"}) {
        EXPECT_EQ(nativePath(path).native(), path);
    }
}
#endif

void sayGoodbye() {
    std::fputs("exit handler ran", stderr);
}

TEST(EndProcessDeathTest, FlushesAndRunsTheExitHandlersOfTheHost) {
    EXPECT_PROCESS_EXIT(
        {
            std::atexit(sayGoodbye);
            std::cout << "pending";
            endProcess(-1);
        },
        support::statusMinusOne, "^pending.*exit handler ran");
}

// An exit handler would write to standard error, and the pattern covers all output up to its end.
TEST(EndProcessDeathTest, FromAWorkerItFlushesAndEndsAtOnce) {
    EXPECT_PROCESS_EXIT(
        {
            std::atexit(sayGoodbye);
            std::cout << "pending";
            std::thread([] { endProcessFromWorker(123); }).join();
        },
        123, "^pending$");
}

// A thread that is writing a line has the lock, so the line is complete before the process ends.
TEST(EndProcessDeathTest, FromAWorkerItWaitsForTheLineOfAnother) {
    EXPECT_PROCESS_EXIT(
        {
            std::ios::sync_with_stdio(false);
            std::unique_lock lock = lockStandardOutput();
            std::thread worker([] { endProcessFromWorker(123); });
            std::cout << "half a line, ";
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            std::cout << "and the rest" << std::flush;
            lock.unlock();
            worker.join();
        },
        123, "^half a line, and the rest$");
}

#if defined(__linux__)
TEST(StandardStreams, OnlyWhatIsStillTheirsIsClosed) {
    const support::Scratch scratch;
    const int before = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    {
        const StandardStreams streams;
        ASSERT_NE(fcntl(STDIN_FILENO, F_GETFD), -1);
    }
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "what was opened is closed again";
    const int own = open((scratch / "own").c_str(), O_RDWR | O_CREAT, 0600);
    const int kept = own == STDIN_FILENO ? dup(own) : own;
    close(STDIN_FILENO);
    {
        const StandardStreams streams;
        ASSERT_EQ(dup2(kept, STDIN_FILENO), STDIN_FILENO); // a thread of the host
    }
    EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1) << "the host's file was closed";
    close(kept);
    if (before >= 0) {
        dup2(before, STDIN_FILENO);
        close(before);
    }
}
#endif

} // namespace

} // namespace Tavrin::GaussionSplat
