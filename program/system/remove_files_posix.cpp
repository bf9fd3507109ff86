#include "program/system/remove_files.h"

#include "program/system/network_disk_posix.h"

#include <algorithm>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace Tavrin::SplatProgram {
namespace {

// Closes all descriptors from `first` to `last`. Called between fork and _exit, so it allocates nothing and
// takes no locks.
void closeRange(unsigned first, unsigned last) {
#if defined(__linux__)
    if (::close_range(first, last, 0) == 0) {
        return;
    }
#endif
    const long most = ::sysconf(_SC_OPEN_MAX);
    for (unsigned handle = first; handle <= last && handle < static_cast<unsigned long>(most); ++handle) {
        ::close(static_cast<int>(handle));
    }
}

// The child process: keeps the descriptors `handles` (ascending) open until the other end of the pipe is
// closed. The system frees the removed files when the child ends.
[[noreturn]] void holdFiles(const std::vector<int>& handles, int pipeEnd) {
    unsigned next = 0;
    for (const int handle : handles) {
        if (static_cast<unsigned>(handle) > next) {
            closeRange(next, static_cast<unsigned>(handle) - 1);
        }
        next = static_cast<unsigned>(handle) + 1;
    }
    closeRange(next, ~0u);
    char nothing = 0;
    while (::read(pipeEnd, &nothing, 1) > 0) {
    }
    ::_exit(0);
}

} // namespace

void removeLargeFiles(const std::vector<std::filesystem::path>& files) {
    int ends[2] = {-1, -1};
    std::vector<int> handles;
    if (::pipe(ends) == 0) {
        handles.push_back(ends[0]);
    }
    for (const std::filesystem::path& file : files) {
        const int handle = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (handle >= 0 && isOnNetworkDisk(handle)) {
            ::close(handle); // held, it would keep a name in the folder; its server does the work anyway
        } else if (handle >= 0) {
            handles.push_back(handle);
        }
    }
    std::ranges::sort(handles);
    if (ends[0] >= 0 && handles.size() > 1 && ::fork() == 0) {
        holdFiles(handles, ends[0]);
    }
    for (const std::filesystem::path& file : files) {
        std::error_code ignored;
        std::filesystem::remove(file, ignored);
    }
    for (const int handle : handles) {
        ::close(handle);
    }
    if (ends[1] >= 0) {
        ::close(ends[1]);
    }
}

} // namespace Tavrin::SplatProgram
