#include "program/system/platform.h"

#include "program/system/open_files.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tavrin::SplatProgram {
namespace {

std::error_code lastError() {
    return {errno, std::system_category()};
}

// Writes a file's contents to the disk in steps, because fsync cannot be stopped half-way. All of it is
// queued first, so that the disk is never idle.
std::error_code writeBack(int handle, const std::function<bool(std::uint64_t bytes)>& goesOn) {
    constexpr off_t step = 8 << 20;
    constexpr unsigned send = SYNC_FILE_RANGE_WRITE;
    constexpr unsigned await =
        SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    struct stat status = {};
    if (::fstat(handle, &status) != 0 || !S_ISREG(status.st_mode)) {
        return {};
    }
    for (const unsigned what : {send, await}) {
        for (off_t at = 0; at < status.st_size; at += step) {
            const off_t length = std::min(step, status.st_size - at);
            if (::sync_file_range(handle, at, length, what) != 0) {
                // Some file systems do not support it; fsync follows anyway. But a failed write is reported
                // here alone, not again by fsync.
                return errno == EIO || errno == ENOSPC || errno == EDQUOT ? lastError() : std::error_code();
            }
            if (!goesOn(what == await ? static_cast<std::uint64_t>(length) : 0)) {
                return std::make_error_code(std::errc::operation_canceled);
            }
        }
    }
    return {};
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
    // Kernels before 5.8 only show mounts of another file system.
    const auto own = identityOf(folder);
    const auto parent = identityOf(folder / "..");
    return own && parent && (own->device != parent->device || own->number == parent->number);
}

std::error_code checkWritable(const std::filesystem::path& folder) {
    return ::access(folder.c_str(), W_OK | X_OK) == 0 ? std::error_code() : lastError();
}

void allowManyFiles() {
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        static_cast<void>(::setrlimit(RLIMIT_NOFILE, &limit)); // if it fails the limit stays as it was
    }
}

std::uint64_t mostOpenFiles() {
    rlimit limit = {};
    return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : RLIM_INFINITY;
}

std::error_code checkReadable(const std::filesystem::path& file) {
    return ::access(file.c_str(), R_OK) == 0 ? std::error_code() : lastError();
}

bool tellsOfFullDisk(const std::error_code& error) {
    return error.value() == ENOSPC || error.value() == EDQUOT;
}

std::error_code flushToDisk(const std::filesystem::path& path) {
    return flushToDisk(path, [](std::uint64_t) { return true; });
}

std::error_code flushToDisk(const std::filesystem::path& path,
                            const std::function<bool(std::uint64_t bytes)>& goesOn) {
    const int handle = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (handle < 0) {
        return lastError();
    }
    std::error_code error = writeBack(handle, goesOn);
    // Pages written back earlier may have failed, too; only fsync reports that.
    error = error ? error : ::fsync(handle) == 0 ? std::error_code() : lastError();
    ::close(handle);
    // Some network and user-space file systems cannot flush a folder; they order its entries themselves.
    return error.value() == EINVAL || error.value() == EOPNOTSUPP ? std::error_code() : error;
}

std::error_code exchangeNames(const std::filesystem::path& one, const std::filesystem::path& other) {
    if (::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE) == 0) {
        return {};
    }
    // Most file systems without the exchange return EINVAL.
    if (errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP) {
        return std::make_error_code(std::errc::function_not_supported);
    }
    return lastError();
}

std::error_code renameFolder(const std::filesystem::path& from, const std::filesystem::path& to) {
    return ::rename(from.c_str(), to.c_str()) == 0 ? std::error_code() : lastError();
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
