#include "program/system/network_disk_posix.h"
#include "program/system/platform.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <string>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tavrin::SplatProgram {
namespace {

std::error_code lastError() {
    return {errno, std::system_category()};
}

// True for the errors of file systems without locks: NFS without its lock daemon, Lustre without the option
// flock, and the like.
bool tellsOfNoLocks(int error) {
    return error == ENOLCK || error == ENOSYS || error == EOPNOTSUPP || error == EINVAL;
}

std::string machineName() {
    std::array<char, 256> name = {};
    return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "";
}

// True if another machine has written its name into the lock file, not long ago. A lock may be visible on one
// machine only, so the run there may be alive although this process could lock the file.
bool mayBeHeldElsewhere(int handle, const struct stat& status) {
    constexpr std::time_t longAgo = std::time_t{24} * 60 * 60; // seconds; no conversion takes that long
    std::array<char, 256> name = {};
    const ssize_t length = ::read(handle, name.data(), name.size() - 1);
    return length > 0 && name.data() != machineName() && std::time(nullptr) - status.st_mtime < longAgo;
}

// Writes this machine's name to the lock file, and at once, so that other machines see it while the file is
// open. If that fails the file stays empty and counts as one of this machine.
void writeMachineName(int handle) {
    const std::string name = machineName();
    const bool isWritten = ::ftruncate(handle, 0) == 0 && ::lseek(handle, 0, SEEK_SET) == 0 &&
                           ::write(handle, name.data(), name.size()) >= 0;
    if (isWritten) {
        ::fdatasync(handle);
    }
}

} // namespace

std::unique_ptr<LockFile> LockFile::take(const std::filesystem::path& path, std::error_code& error) {
    constexpr int flags = O_RDWR | O_NOFOLLOW | O_CLOEXEC;
    error.clear();
    for (;;) {
        int handle = ::open(path.c_str(), flags | O_CREAT | O_EXCL, 0666);
        const bool isNew = handle >= 0;
        if (!isNew && errno == EEXIST) {
            handle = ::open(path.c_str(), flags);
            if (handle < 0 && errno == ENOENT) {
                continue; // its holder has removed it
            }
        }
        if (handle < 0) {
            error = lastError();
            return nullptr;
        }
        const bool isLocked = ::flock(handle, LOCK_EX | LOCK_NB) == 0;
        // Where there are no locks, a file that this call has created is no other run's.
        if (!isLocked && !(isNew && tellsOfNoLocks(errno))) {
            if (errno != EWOULDBLOCK) {
                error = lastError();
            }
            ::close(handle);
            return nullptr;
        }
        // The last holder may have removed the file between open and lock. Then this lock belongs to a file
        // without a name.
        struct stat held = {};
        struct stat named = {};
        if (::fstat(handle, &held) != 0 || ::lstat(path.c_str(), &named) != 0 ||
            held.st_dev != named.st_dev || held.st_ino != named.st_ino) {
            ::close(handle);
            continue;
        }
        if (isOnNetworkDisk(handle)) {
            if (mayBeHeldElsewhere(handle, held)) {
                ::close(handle);
                return nullptr;
            }
            writeMachineName(handle);
        }
        return std::unique_ptr<LockFile>(new LockFile(path, handle));
    }
}

LockFile::~LockFile() {
    if (!isLeft_) {
        ::unlink(path_.c_str());
    }
    ::close(static_cast<int>(handle_));
}

} // namespace Tavrin::SplatProgram
