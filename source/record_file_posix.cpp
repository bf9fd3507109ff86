#include "source/record_file.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tavrin::SplatSource {

namespace {

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

std::intptr_t RecordFile::open(const std::filesystem::path& path, int& error) {
    int handle;
    do {
        handle = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    } while (handle < 0 && errno == EINTR);
    error = handle < 0 ? errno : 0;
    return handle;
}

void RecordFile::close(std::intptr_t handle) {
    ::close(static_cast<int>(handle));
}

FileState RecordFile::stateOf(std::intptr_t handle, int& error) {
    struct stat status = {};
    error = ::fstat(static_cast<int>(handle), &status) == 0 ? 0 : errno;
    return stateFrom(status);
}

FileState RecordFile::stateOf(const std::filesystem::path& path, int& error) {
    struct stat status = {};
    error = ::stat(path.c_str(), &status) == 0 ? 0 : errno;
    return stateFrom(status);
}

std::uint64_t RecordFile::readSome(std::intptr_t handle, std::uint64_t offset, void* destination,
                                   std::uint64_t length, int& error) {
    constexpr std::uint64_t most = std::uint64_t{1} << 30; // systems read less than 2^31 bytes at a time
    ssize_t got;
    do {
        got = ::pread(static_cast<int>(handle), destination, static_cast<std::size_t>(std::min(length, most)),
                      static_cast<off_t>(offset));
    } while (got < 0 && errno == EINTR);
    error = got < 0 ? errno : 0;
    return got < 0 ? 0 : static_cast<std::uint64_t>(got);
}

} // namespace Tavrin::SplatSource
