#include "source/system_file.h"

#include <algorithm>
#include <utility>

#include <windows.h>

namespace Tavrin::SplatSource {

namespace {

std::uint64_t joined(DWORD high, DWORD low) {
    return std::uint64_t{high} << 32 | low;
}

HANDLE handleOf(std::intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

int errorUnless(BOOL isDone) {
    return isDone != 0 ? 0 : static_cast<int>(::GetLastError());
}

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

std::intptr_t openFile(const std::filesystem::path& path, DWORD access, DWORD share, DWORD how, int& error) {
    const HANDLE handle =
        ::CreateFileW(path.c_str(), access, share, nullptr, how, FILE_ATTRIBUTE_NORMAL, nullptr);
    error = errorUnless(handle != INVALID_HANDLE_VALUE);
    return reinterpret_cast<std::intptr_t>(handle);
}

FileState stateFrom(std::intptr_t handle, int& error) {
    BY_HANDLE_FILE_INFORMATION facts = {};
    error = errorUnless(::GetFileInformationByHandle(handleOf(handle), &facts));
    return {.size = joined(facts.nFileSizeHigh, facts.nFileSizeLow),
            .changed = static_cast<std::int64_t>(
                joined(facts.ftLastWriteTime.dwHighDateTime, facts.ftLastWriteTime.dwLowDateTime)),
            .device = facts.dwVolumeSerialNumber,
            .number = joined(facts.nFileIndexHigh, facts.nFileIndexLow)};
}

OVERLAPPED placeOf(std::uint64_t offset) {
    OVERLAPPED place = {};
    place.Offset = static_cast<DWORD>(offset);
    place.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return place;
}

} // namespace

int SystemFile::openToRead(const std::filesystem::path& path) {
    int error = 0;
    handle_ = openFile(path, GENERIC_READ, shareAll, OPEN_EXISTING, error);
    return error;
}

int SystemFile::openToWrite(const std::filesystem::path& path) {
    int error = 0;
    handle_ = openFile(path, GENERIC_WRITE, FILE_SHARE_READ, CREATE_ALWAYS, error);
    return error;
}

int SystemFile::close() {
    const std::intptr_t handle = std::exchange(handle_, none);
    return handle == none ? 0 : errorUnless(::CloseHandle(handleOf(handle)));
}

FileState SystemFile::state(int& error) const {
    return stateFrom(handle_, error);
}

FileState SystemFile::stateOf(const std::filesystem::path& path, int& error) {
    SystemFile file;
    file.handle_ = openFile(path, FILE_READ_ATTRIBUTES, shareAll, OPEN_EXISTING, error);
    return error == 0 ? file.state(error) : FileState{};
}

std::uint64_t SystemFile::readSome(std::uint64_t offset, void* destination, std::uint64_t length,
                                   int& error) const {
    OVERLAPPED place = placeOf(offset);
    DWORD got = 0;
    error = errorUnless(::ReadFile(handleOf(handle_), destination,
                                   static_cast<DWORD>(std::min(length, mostAtOnce)), &got, &place));
    error = error == ERROR_HANDLE_EOF ? 0 : error;
    return error == 0 ? got : 0;
}

std::uint64_t SystemFile::writeSome(std::uint64_t offset, const void* bytes, std::uint64_t length,
                                    int& error) {
    OVERLAPPED place = placeOf(offset);
    DWORD done = 0;
    error = errorUnless(::WriteFile(handleOf(handle_), bytes,
                                    static_cast<DWORD>(std::min(length, mostAtOnce)), &done, &place));
    error = error == 0 && done == 0 ? ERROR_DISK_FULL : error;
    return error == 0 ? done : 0;
}

int SystemFile::reserve(std::uint64_t offset, std::uint64_t bytes) {
    LARGE_INTEGER end;
    end.QuadPart = static_cast<LONGLONG>(offset + bytes);
    const int error = errorUnless(::SetFilePointerEx(handleOf(handle_), end, nullptr, FILE_BEGIN));
    return error != 0 ? error : errorUnless(::SetEndOfFile(handleOf(handle_)));
}

} // namespace Tavrin::SplatSource
