// The exit statuses, and the exception that carries one.
#pragma once

#include <stdexcept>
#include <string>

namespace Tavrin::SplatProgram {

// The exit statuses of the program. Every run ends with one of these.
enum class ExitStatus {
    done = 0,
    usage = 1,
    inputRefused = 2,
    outputRefused = 3,
    conversionFailed = 4,
    splatsLeftOut = 5,
    verificationFailed = 6,
    doesNotFit = 7,    // memory or disk are too small; with more of them the same command may succeed
    notTold = 8,       // the work is done, but its report or standard output was lost
    interrupted = 130, // 128 + SIGINT, as shells report it
};

// The table at the end of every --help.
inline constexpr const char* exitStatusTable =
    "Exit status:\n"
    "  0    done\n"
    "  1    usage: the command line is wrong\n"
    "  2    input refused: nothing was touched\n"
    "  3    output refused: nothing was touched\n"
    "  4    the conversion failed: an earlier dataset is unchanged\n"
    "  5    splats were left out: an earlier dataset is unchanged\n"
    "  6    verification failed\n"
    "  7    too little memory or disk: an earlier dataset is unchanged\n"
    "  8    done, but standard output or the report could not be written\n"
    "  130  interrupted: an earlier dataset is unchanged, or the new one is complete";

// A failure that ends the command: one line that says what, where and what to do, and the exit status.
class Failure : public std::runtime_error {
public:
    Failure(ExitStatus status, const std::string& line) : std::runtime_error(line), status_(status) {}
    ExitStatus status() const noexcept { return status_; }

private:
    ExitStatus status_;
};

// The Failure for any exception: the exception itself if it is one, otherwise a Failure for an unexpected
// error.
Failure failureOf(const std::exception& error);

// The name of a status in reports: "done", "inputRefused", ...
const char* nameOf(ExitStatus status);

} // namespace Tavrin::SplatProgram
