#include "stream/output_file.h"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace Tavrin::SplatStream {

std::intptr_t OutputFile::open(const std::filesystem::path& path, int& error) {
    int handle;
    do {
        handle = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    } while (handle < 0 && errno == EINTR);
    error = handle < 0 ? errno : 0;
    return handle;
}

// After EINTR the descriptor is gone on Linux: nothing is tried again.
int OutputFile::closeHandle(std::intptr_t handle) {
    return ::close(static_cast<int>(handle)) == 0 || errno == EINTR ? 0 : errno;
}

// Not posix_fallocate: where the file system cannot set room aside, that writes a byte to every block.
int OutputFile::reserveBytes(std::intptr_t handle, std::uint64_t bytes) {
#if defined(__linux__)
    int result;
    do {
        result = ::fallocate(static_cast<int>(handle), 0, 0, static_cast<off_t>(bytes));
    } while (result != 0 && errno == EINTR);
    const bool isRefused = errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL || errno == ENODEV;
    return result == 0 || isRefused ? 0 : errno;
#else
    (void)handle;
    (void)bytes;
    return 0;
#endif
}

std::uint64_t OutputFile::writeSome(std::intptr_t handle, std::uint64_t offset, const void* bytes,
                                    std::uint64_t length, int& error) {
    constexpr std::uint64_t most = std::uint64_t{1} << 30; // systems write less than 2^31 bytes at a time
    ssize_t done;
    do {
        done = ::pwrite(static_cast<int>(handle), bytes, static_cast<std::size_t>(std::min(length, most)),
                        static_cast<off_t>(offset));
    } while (done < 0 && errno == EINTR);
    error = done < 0 ? errno : done == 0 ? ENOSPC : 0;
    return done < 0 ? 0 : static_cast<std::uint64_t>(done);
}

} // namespace Tavrin::SplatStream
