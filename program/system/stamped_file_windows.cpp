#include "program/system/stamped_file.h"

#include "program/system/handle_windows.h"

#include <algorithm>
#include <utility>

#include <windows.h>

namespace Tavrin::SplatProgram {
namespace {

constexpr unsigned wordBits = 32;

std::uint64_t wide(DWORD high, DWORD low) {
    return std::uint64_t{high} << wordBits | low;
}

HANDLE handleOf(std::intptr_t value) {
    return reinterpret_cast<HANDLE>(value);
}

std::optional<StampedFile::Stamp> stampOf(HANDLE handle) {
    BY_HANDLE_FILE_INFORMATION facts = {};
    if (GetFileType(handle) != FILE_TYPE_DISK || !GetFileInformationByHandle(handle, &facts)) {
        return std::nullopt;
    }
    const FILETIME& time = facts.ftLastWriteTime;
    return StampedFile::Stamp{{facts.dwVolumeSerialNumber, wide(facts.nFileIndexHigh, facts.nFileIndexLow)},
                              wide(facts.nFileSizeHigh, facts.nFileSizeLow),
                              static_cast<std::int64_t>(wide(time.dwHighDateTime, time.dwLowDateTime))};
}

} // namespace

std::optional<StampedFile> StampedFile::open(const std::filesystem::path& path, std::error_code& error) {
    error.clear();
    Handle handle(CreateFileW(path.c_str(), GENERIC_READ,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
    const std::optional<Stamp> stamp = handle ? stampOf(handle.get()) : std::nullopt;
    if (!stamp) {
        const DWORD code = GetLastError();
        error = {static_cast<int>(code == ERROR_SUCCESS ? ERROR_INVALID_PARAMETER : code),
                 std::system_category()};
        return std::nullopt;
    }
    return StampedFile(reinterpret_cast<std::intptr_t>(handle.release()), *stamp);
}

StampedFile::StampedFile(StampedFile&& other) noexcept
    : handle_(std::exchange(other.handle_, 0)), stamp_(other.stamp_) {}

StampedFile::~StampedFile() {
    if (handle_ != 0) {
        CloseHandle(handleOf(handle_));
    }
}

bool StampedFile::isUnchanged() const {
    return stampOf(handleOf(handle_)) == stamp_;
}

bool StampedFile::read(std::uint64_t offset, char* target, std::size_t count) const {
    constexpr std::size_t mostBytes = std::size_t{1} << 30; // of one call
    while (count > 0) {
        OVERLAPPED place = {};
        place.Offset = static_cast<DWORD>(offset);
        place.OffsetHigh = static_cast<DWORD>(offset >> wordBits);
        DWORD got = 0;
        if (!ReadFile(handleOf(handle_), target, static_cast<DWORD>(std::min(count, mostBytes)), &got,
                      &place) ||
            got == 0) {
            return false;
        }
        offset += got;
        target += got;
        count -= got;
    }
    return true;
}

} // namespace Tavrin::SplatProgram
