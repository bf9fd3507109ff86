#include "program/system/remove_files.h"

#include "program/system/child_process_posix.h"
#include "program/system/network_disk_posix.h"

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Tavrin::SplatProgram {
namespace {

// The child process: keeps the descriptors `handles` (ascending) open until the other end of the pipe is
// closed. The system frees the removed files when the child ends.
[[noreturn]] void holdFiles(const std::vector<int>& handles, int pipeEnd) {
    closeAllBut(handles);
    char nothing = 0;
    while (::read(pipeEnd, &nothing, 1) > 0) {
    }
    ::_exit(0);
}

// Files that are freed faster than a process is made, in bytes.
constexpr std::uint64_t small = std::uint64_t{32} << 20;

// Descriptors of the files, so that none is freed before the last of these is closed.
std::vector<int> openAll(const std::vector<std::filesystem::path>& files) {
    std::vector<int> handles;
    for (const std::filesystem::path& file : files) {
        const int handle = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (handle >= 0 && isOnNetworkDisk(handle)) {
            ::close(handle); // held, it would keep a name in the folder; its server does the work anyway
        } else if (handle >= 0) {
            handles.push_back(handle);
        }
    }
    return handles;
}

std::uint64_t bytesOf(const std::vector<int>& handles) {
    std::uint64_t bytes = 0;
    for (const int handle : handles) {
        struct stat status = {};
        bytes += ::fstat(handle, &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
    }
    return bytes;
}

// A process that holds the descriptors until `pipeEnd` is closed; -1 where there can be none.
pid_t makeHolder(std::vector<int> handles, int pipeEnd) {
    handles.push_back(pipeEnd);
    std::ranges::sort(handles);
    const pid_t holder = ::fork();
    if (holder == 0) {
        holdFiles(handles, pipeEnd);
    }
    return holder;
}

// The end of the process comes after the files are free.
void awaitEnd(pid_t process, const std::function<bool()>& waits) {
    const timespec pause = {.tv_sec = 0, .tv_nsec = 2'000'000};
    while (waits() && ::waitpid(process, nullptr, WNOHANG) == 0) {
        ::nanosleep(&pause, nullptr); // a signal ends it
    }
}

} // namespace

std::error_code removeFiles(const std::vector<std::filesystem::path>& files,
                            const std::function<bool()>& waits, const std::filesystem::path& folder) {
    const std::vector<int> handles = openAll(files);
    int ends[2] = {-1, -1};
    pid_t holder = -1;
    if (bytesOf(handles) > small && ::pipe2(ends, O_CLOEXEC) == 0) {
        holder = makeHolder(handles, ends[0]);
    }
    for (const std::filesystem::path& file : files) {
        std::error_code ignored;
        std::filesystem::remove(file, ignored);
    }
    std::error_code error;
    if (!folder.empty()) {
        std::filesystem::remove(folder, error);
    }
    for (const int handle : handles) {
        ::close(handle);
    }
    for (const int end : ends) {
        if (end >= 0) {
            ::close(end);
        }
    }
    if (holder > 0) {
        awaitEnd(holder, waits);
    }
    return error;
}

} // namespace Tavrin::SplatProgram
