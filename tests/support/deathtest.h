// Checks ends of processes, and captures standard output.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#if defined(_WIN32)
#include <io.h>
#else
#include <sys/resource.h>
#include <unistd.h>
#endif

namespace support {

// The exit status that a parent sees of a process that ends with -1.
#if defined(_WIN32)
inline constexpr int statusMinusOne = -1;
#else
inline constexpr int statusMinusOne = 255;
#endif

// Redirects standard output to standard error, since a death test matches only that.
inline void mergeOutput() {
    std::fflush(stdout);
#if defined(_WIN32)
    _dup2(2, 1);
#else
    dup2(2, 1);
#endif
}

#if !defined(_WIN32)
// Limits this process to a few threads. The limit does not apply to root, so root becomes another user.
inline void limitThreads() {
    const auto lone = static_cast<uid_t>(20'000 + getpid() % 40'000);
    const rlimit limit{.rlim_cur = 6, .rlim_max = 6};
    if ((getuid() == 0 && setuid(lone) != 0) || setrlimit(RLIMIT_NPROC, &limit) != 0) {
        std::_Exit(1);
    }
}
#endif

// The text that `body` writes to standard output.
template <typename Body>
std::string standardOutputOf(Body body) {
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
}

} // namespace support

// Expects that a process that runs `statement` ends with `status`, and that its standard output and error
// match the regular expression `output`. The process is started anew, so it has run no other test before.
#define EXPECT_PROCESS_EXIT(statement, status, output)                                                       \
    EXPECT_PROCESS_END(statement, testing::ExitedWithCode(status), output)

// The same with a predicate of the exit status, such as testing::KilledBySignal.
#define EXPECT_PROCESS_END(statement, predicate, output)                                                     \
    do {                                                                                                     \
        GTEST_FLAG_SET(death_test_style, "threadsafe");                                                      \
        EXPECT_EXIT(                                                                                         \
            {                                                                                                \
                support::mergeOutput();                                                                      \
                statement;                                                                                   \
            },                                                                                               \
            predicate, output);                                                                              \
    } while (false)
