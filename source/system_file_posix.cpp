#include "source/system_file.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tavrin::SplatSource {

namespace {

// Repeats a system call that a signal has interrupted. Returns its result, or -1 and an error.
template <typename Call>
auto repeated(Call call, int& error) {
    auto result = call();
    while (result < 0 && errno == EINTR) {
        result = call();
    }
    error = result < 0 ? errno : 0;
    return result;
}

FileState stateFrom(const struct stat& status) {
    constexpr std::int64_t second = 1'000'000'000;
#if defined(__APPLE__)
    const struct timespec& time = status.st_mtimespec;
#else
    const struct timespec& time = status.st_mtim;
#endif
    return {.size = static_cast<std::uint64_t>(status.st_size),
            .changed = static_cast<std::int64_t>(time.tv_sec) * second + time.tv_nsec,
            .device = static_cast<std::uint64_t>(status.st_dev),
            .number = static_cast<std::uint64_t>(status.st_ino)};
}

} // namespace

int SystemFile::openToRead(const std::filesystem::path& path) {
    int error = 0;
    handle_ = repeated([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }, error);
    return error;
}

int SystemFile::openToWrite(const std::filesystem::path& path) {
    int error = 0;
    handle_ =
        repeated([&] { return ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666); }, error);
    return error;
}

// On Linux the descriptor is closed even after EINTR, so the call is not repeated.
int SystemFile::close() {
    const std::intptr_t handle = std::exchange(handle_, none);
    return handle == none || ::close(static_cast<int>(handle)) == 0 || errno == EINTR ? 0 : errno;
}

FileState SystemFile::state(int& error) const {
    struct stat status = {};
    error = ::fstat(static_cast<int>(handle_), &status) == 0 ? 0 : errno;
    return stateFrom(status);
}

FileState SystemFile::stateOf(const std::filesystem::path& path, int& error) {
    struct stat status = {};
    error = ::stat(path.c_str(), &status) == 0 ? 0 : errno;
    return stateFrom(status);
}

std::uint64_t SystemFile::readSome(std::uint64_t offset, void* destination, std::uint64_t length,
                                   int& error) const {
    const auto read = [&] {
        return ::pread(static_cast<int>(handle_), destination,
                       static_cast<std::size_t>(std::min(length, mostAtOnce)), static_cast<off_t>(offset));
    };
    const ssize_t got = repeated(read, error);
    return got < 0 ? 0 : static_cast<std::uint64_t>(got);
}

std::uint64_t SystemFile::writeSome(std::uint64_t offset, const void* bytes, std::uint64_t length,
                                    int& error) {
    const auto write = [&] {
        return ::pwrite(static_cast<int>(handle_), bytes,
                        static_cast<std::size_t>(std::min(length, mostAtOnce)), static_cast<off_t>(offset));
    };
    const ssize_t done = repeated(write, error);
    error = done == 0 ? ENOSPC : error;
    return done < 0 ? 0 : static_cast<std::uint64_t>(done);
}

// Not posix_fallocate, which writes a byte to every block if the file system cannot reserve room.
int SystemFile::reserve(std::uint64_t offset, std::uint64_t bytes) {
#if defined(__linux__)
    int error = 0;
    const auto allocate = [&] {
        return ::fallocate(static_cast<int>(handle_), 0, static_cast<off_t>(offset),
                           static_cast<off_t>(bytes));
    };
    repeated(allocate, error);
    const bool isRefused = error == EOPNOTSUPP || error == ENOSYS || error == EINVAL || error == ENODEV;
    return isRefused ? 0 : error;
#else
    (void)offset;
    (void)bytes;
    return 0;
#endif
}

} // namespace Tavrin::SplatSource
