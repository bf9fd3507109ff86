#include "program/system/stamped_file.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tavrin::SplatProgram {
namespace {

constexpr std::intptr_t noHandle = -1;

std::optional<StampedFile::Stamp> stampOf(std::intptr_t handle) {
    constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
    struct stat status = {};
    if (::fstat(static_cast<int>(handle), &status) != 0) {
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode)) {
        errno = EINVAL;
        return std::nullopt;
    }
    return StampedFile::Stamp{{status.st_dev, status.st_ino},
                              static_cast<std::uint64_t>(status.st_size),
                              status.st_mtim.tv_sec * nanosecondsPerSecond + status.st_mtim.tv_nsec};
}

} // namespace

std::optional<StampedFile> StampedFile::open(const std::filesystem::path& path, std::error_code& error) {
    error.clear();
    // O_NONBLOCK, so that opening a pipe does not wait.
    const std::intptr_t handle = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    const std::optional<Stamp> stamp = handle == noHandle ? std::nullopt : stampOf(handle);
    if (!stamp) {
        error = {errno, std::system_category()};
        if (handle != noHandle) {
            ::close(static_cast<int>(handle));
        }
        return std::nullopt;
    }
    return StampedFile(handle, *stamp);
}

StampedFile::StampedFile(StampedFile&& other) noexcept
    : handle_(std::exchange(other.handle_, noHandle)), stamp_(other.stamp_) {}

StampedFile::~StampedFile() {
    if (handle_ != noHandle) {
        ::close(static_cast<int>(handle_));
    }
}

bool StampedFile::isUnchanged() const {
    return stampOf(handle_) == stamp_;
}

bool StampedFile::read(std::uint64_t offset, char* target, std::size_t count) const {
    while (count > 0) {
        const ssize_t got = ::pread(static_cast<int>(handle_), target, count, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        offset += static_cast<std::uint64_t>(got);
        target += got;
        count -= static_cast<std::size_t>(got);
    }
    return true;
}

} // namespace Tavrin::SplatProgram
