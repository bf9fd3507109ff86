#include "source/record_file.h"

#include <algorithm>

#include <windows.h>

namespace Tavrin::SplatSource {

namespace {

std::uint64_t joined(DWORD high, DWORD low) {
    return std::uint64_t{high} << 32 | low;
}

HANDLE handleOf(std::intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

} // namespace

// Other processes may write, rename and remove the file; requireUnchanged notices.
std::intptr_t RecordFile::open(const std::filesystem::path& path, int& error) {
    const HANDLE handle =
        ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                      nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    error = handle == INVALID_HANDLE_VALUE ? static_cast<int>(::GetLastError()) : 0;
    return reinterpret_cast<std::intptr_t>(handle);
}

void RecordFile::close(std::intptr_t handle) {
    ::CloseHandle(handleOf(handle));
}

FileState RecordFile::stateOf(std::intptr_t handle, int& error) {
    BY_HANDLE_FILE_INFORMATION facts = {};
    error =
        ::GetFileInformationByHandle(handleOf(handle), &facts) != 0 ? 0 : static_cast<int>(::GetLastError());
    return {.size = joined(facts.nFileSizeHigh, facts.nFileSizeLow),
            .changed = static_cast<std::int64_t>(
                joined(facts.ftLastWriteTime.dwHighDateTime, facts.ftLastWriteTime.dwLowDateTime)),
            .device = facts.dwVolumeSerialNumber,
            .number = joined(facts.nFileIndexHigh, facts.nFileIndexLow)};
}

FileState RecordFile::stateOf(const std::filesystem::path& path, int& error) {
    const HANDLE handle = ::CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                        OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        error = static_cast<int>(::GetLastError());
        return {};
    }
    const FileState state = stateOf(reinterpret_cast<std::intptr_t>(handle), error);
    ::CloseHandle(handle);
    return state;
}

std::uint64_t RecordFile::readSome(std::intptr_t handle, std::uint64_t offset, void* destination,
                                   std::uint64_t length, int& error) {
    constexpr std::uint64_t most = std::uint64_t{1} << 30;
    OVERLAPPED place = {};
    place.Offset = static_cast<DWORD>(offset);
    place.OffsetHigh = static_cast<DWORD>(offset >> 32);
    DWORD got = 0;
    error = 0;
    if (::ReadFile(handleOf(handle), destination, static_cast<DWORD>(std::min(length, most)), &got, &place) ==
        0) {
        const DWORD reason = ::GetLastError();
        error = reason == ERROR_HANDLE_EOF ? 0 : static_cast<int>(reason);
        return 0;
    }
    return got;
}

} // namespace Tavrin::SplatSource
