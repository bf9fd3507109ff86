#include "program/system/flush_folders.h"

#include "program/system/child_process_posix.h"
#include "program/system/platform.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

// Both processes have a pipe to the other. The child says that it has flushed, the parent that it goes on by
// itself. An end of a pipe without a word means that the other process is gone.
struct Pipes {
    int toParent[2] = {-1, -1}; // the end to read, the end to write
    int toChild[2] = {-1, -1};

    Pipes() { isMade = ::pipe2(toParent, O_CLOEXEC) == 0 && ::pipe2(toChild, O_CLOEXEC) == 0; }
    Pipes(const Pipes&) = delete;
    Pipes& operator=(const Pipes&) = delete;
    ~Pipes() {
        for (const int end : {toParent[0], toParent[1], toChild[0], toChild[1]}) {
            closeEnd(end);
        }
    }

    bool isMade = false;

    static void closeEnd(int end) {
        if (end >= 0) {
            ::close(end);
        }
    }
    void closeChildsEnds() {
        closeEnd(std::exchange(toParent[1], -1));
        closeEnd(std::exchange(toChild[0], -1));
    }
};

bool say(int end) {
    return ::write(end, "x", 1) == 1;
}

// Waits for a word. False when there will be none.
bool hear(int end) {
    char word = 0;
    ssize_t got = 0;
    while ((got = ::read(end, &word, 1)) < 0 && errno == EINTR) {
    }
    return got == 1;
}

// The child process. Keeps open what `keeps` (ascending) lists.
[[noreturn]] void flushAlone(const std::vector<int>& keeps, const std::vector<int>& folders,
                             const AfterFlush& after, const Pipes& pipes) {
    ::signal(SIGPIPE, SIG_IGN); // the parent may be gone
    closeAllBut(keeps);
    for (const int folder : folders) {
        ::fsync(folder);
    }
    if (!say(pipes.toParent[1]) || !hear(pipes.toChild[0])) {
        for (const fs::path& path : after.removals) {
            if (::unlink(path.c_str()) != 0) {
                ::rmdir(path.c_str());
            }
        }
    }
    ::_exit(0);
}

std::vector<int> openFolders(const std::vector<fs::path>& folders) {
    std::vector<int> handles;
    for (const fs::path& folder : folders) {
        const int handle = ::open(folder.c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY);
        if (handle >= 0) {
            handles.push_back(handle);
        }
    }
    return handles;
}

// The process id of the child; -1 where there can be none.
pid_t forkFlush(const std::vector<int>& folders, const AfterFlush& after, const Pipes& pipes) {
    std::vector<int> keeps = folders;
    keeps.push_back(pipes.toParent[1]);
    keeps.push_back(pipes.toChild[0]);
    if (after.lock >= 0) {
        keeps.push_back(static_cast<int>(after.lock));
    }
    std::ranges::sort(keeps);
    const pid_t child = ::fork();
    if (child == 0) {
        flushAlone(keeps, folders, after, pipes);
    }
    return child;
}

enum class End {
    flushed,
    left, // unwanted, and still under way
    died, // without a word
};

End awaitFlush(int fromChild, const std::function<bool()>& isUnwanted) {
    using Clock = std::chrono::steady_clock;
    constexpr int look = 10; // milliseconds
    constexpr std::chrono::milliseconds patience(100);
    std::optional<Clock::time_point> asked;
    for (;;) {
        pollfd end = {.fd = fromChild, .events = POLLIN, .revents = 0};
        if (::poll(&end, 1, look) > 0) { // a signal ends the wait
            return hear(fromChild) ? End::flushed : End::died;
        }
        if (!asked && isUnwanted()) {
            asked = Clock::now();
        }
        if (asked && Clock::now() - *asked >= patience) {
            return End::left;
        }
    }
}

} // namespace

bool flushFolders(const std::vector<fs::path>& folders, const AfterFlush& after,
                  const std::function<bool()>& isUnwanted) {
    End end = End::died;
    {
        Pipes pipes;
        const std::vector<int> handles = openFolders(folders);
        const pid_t child = pipes.isMade ? forkFlush(handles, after, pipes) : -1;
        for (const int handle : handles) {
            ::close(handle);
        }
        if (child > 0) {
            pipes.closeChildsEnds();
            end = awaitFlush(pipes.toParent[0], isUnwanted);
            if (end == End::left) {
                return false;
            }
            end = end == End::flushed && say(pipes.toChild[1]) ? End::flushed : End::died;
            ::waitpid(child, nullptr, 0);
        }
    }
    if (end == End::died) {
        for (const fs::path& folder : folders) {
            flushToDisk(folder);
        }
    }
    return true;
}

} // namespace Tavrin::SplatProgram
