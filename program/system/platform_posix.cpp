#include "program/system/platform.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tavrin::SplatProgram {
namespace {

std::error_code lastError() {
    return {errno, std::system_category()};
}

} // namespace

std::filesystem::path pathFromText(std::string_view text) {
    return {text};
}

std::string textFromPath(const std::filesystem::path& path) {
    return path.native();
}

std::optional<std::string> converterPath(const std::filesystem::path& path) {
    return path.native();
}

std::vector<std::string> commandLineWords(int argc, char** argv) {
    return {argv + std::min(argc, 1), argv + argc};
}

std::filesystem::path resolvedPath(const std::filesystem::path& path, std::error_code& error) {
    return std::filesystem::weakly_canonical(path, error);
}

std::optional<FileIdentity> identityOf(const std::filesystem::path& path) {
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0) {
        return std::nullopt;
    }
    return FileIdentity{status.st_dev, status.st_ino};
}

bool isMountPoint(const std::filesystem::path& folder) {
    struct statx status = {};
    if (::statx(AT_FDCWD, folder.c_str(), 0, 0, &status) == 0 &&
        (status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0) {
        return (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
    }
    // Kernels before 5.8 tell only of mounts of another file system.
    const auto own = identityOf(folder);
    const auto parent = identityOf(folder / "..");
    return own && parent && (own->device != parent->device || own->number == parent->number);
}

std::error_code checkWritable(const std::filesystem::path& folder) {
    return ::access(folder.c_str(), W_OK | X_OK) == 0 ? std::error_code() : lastError();
}

std::error_code checkReadable(const std::filesystem::path& file) {
    return ::access(file.c_str(), R_OK) == 0 ? std::error_code() : lastError();
}

std::error_code flushToDisk(const std::filesystem::path& path) {
    const int handle = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (handle < 0) {
        return lastError();
    }
    const std::error_code error = ::fsync(handle) == 0 ? std::error_code() : lastError();
    ::close(handle);
    // Some network and user-space file systems cannot flush a folder; they keep its entries in order
    // themselves.
    return error.value() == EINVAL || error.value() == EOPNOTSUPP ? std::error_code() : error;
}

std::error_code exchangeNames(const std::filesystem::path& one, const std::filesystem::path& other) {
    if (::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0) {
        return {};
    }
    // Most file systems without the exchange say "invalid argument".
    if (errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP) {
        return std::make_error_code(std::errc::function_not_supported);
    }
    return lastError();
}

std::error_code renameFolder(const std::filesystem::path& from, const std::filesystem::path& to) {
    return ::rename(from.c_str(), to.c_str()) == 0 ? std::error_code() : lastError();
}

std::unique_ptr<LockFile> LockFile::take(const std::filesystem::path& path, std::error_code& error) {
    error.clear();
    for (;;) {
        // Not close-on-exec: a child that outlives this process by a moment must keep the lock.
        const int handle = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW, 0666);
        if (handle < 0) {
            error = lastError();
            return nullptr;
        }
        if (::flock(handle, LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK) {
                error = lastError();
            }
            ::close(handle);
            return nullptr;
        }
        // Between open and lock the last holder may have removed the file: then this lock is on no name.
        struct stat held = {};
        struct stat named = {};
        if (::fstat(handle, &held) == 0 && ::lstat(path.c_str(), &named) == 0 &&
            held.st_dev == named.st_dev && held.st_ino == named.st_ino) {
            return std::unique_ptr<LockFile>(new LockFile(path, handle));
        }
        ::close(handle);
    }
}

LockFile::~LockFile() {
    ::unlink(path_.c_str());
    ::close(static_cast<int>(handle_));
}

std::uint64_t lineEndBytes() {
    return 1;
}

std::uint64_t ownProcessId() {
    return static_cast<std::uint64_t>(::getpid());
}

bool processMayExist(std::uint64_t id) {
    const auto process = static_cast<pid_t>(id);
    if (process <= 0 || static_cast<std::uint64_t>(process) != id) {
        return false;
    }
    return ::kill(process, 0) == 0 || errno != ESRCH;
}

bool standardOutputIsTerminal() {
    return ::isatty(STDOUT_FILENO) == 1;
}

bool standardErrorIsTerminal() {
    return ::isatty(STDERR_FILENO) == 1;
}

bool standardErrorTakesSequences() {
    const char* const kind = std::getenv("TERM");
    return kind != nullptr && *kind != '\0' && std::string_view(kind) != "dumb";
}

unsigned terminalColumns() {
    winsize size = {};
    constexpr unsigned usual = 80;
    for (const int stream : {STDERR_FILENO, STDOUT_FILENO}) {
        if (::ioctl(stream, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
            return size.ws_col;
        }
    }
    return usual;
}

TerminalText::TerminalText() : codePage_(0), mode_(0), isModeSet_(false) {}

TerminalText::~TerminalText() = default;

} // namespace Tavrin::SplatProgram
