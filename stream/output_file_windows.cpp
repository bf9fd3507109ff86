#include "stream/output_file.h"

#include <algorithm>

#include <windows.h>

namespace Tavrin::SplatStream {

namespace {

HANDLE handleOf(std::intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

int lastError() {
    return static_cast<int>(::GetLastError());
}

} // namespace

std::intptr_t OutputFile::open(const std::filesystem::path& path, int& error) {
    const HANDLE handle = ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                        FILE_ATTRIBUTE_NORMAL, nullptr);
    error = handle == INVALID_HANDLE_VALUE ? lastError() : 0;
    return reinterpret_cast<std::intptr_t>(handle);
}

int OutputFile::closeHandle(std::intptr_t handle) {
    return ::CloseHandle(handleOf(handle)) != 0 ? 0 : lastError();
}

int OutputFile::reserveBytes(std::intptr_t handle, std::uint64_t bytes) {
    LARGE_INTEGER end;
    end.QuadPart = static_cast<LONGLONG>(bytes);
    return ::SetFilePointerEx(handleOf(handle), end, nullptr, FILE_BEGIN) != 0 &&
                   ::SetEndOfFile(handleOf(handle)) != 0
               ? 0
               : lastError();
}

std::uint64_t OutputFile::writeSome(std::intptr_t handle, std::uint64_t offset, const void* bytes,
                                    std::uint64_t length, int& error) {
    constexpr std::uint64_t most = std::uint64_t{1} << 30;
    OVERLAPPED place = {};
    place.Offset = static_cast<DWORD>(offset);
    place.OffsetHigh = static_cast<DWORD>(offset >> 32);
    DWORD done = 0;
    error = 0;
    if (::WriteFile(handleOf(handle), bytes, static_cast<DWORD>(std::min(length, most)), &done, &place) ==
        0) {
        error = lastError();
        return 0;
    }
    error = done == 0 ? ERROR_DISK_FULL : 0;
    return done;
}

} // namespace Tavrin::SplatStream
