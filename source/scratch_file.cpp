#include "source/scratch_file.h"

#include <algorithm>
#include <string>
#include <system_error>

#ifdef _WIN32
#include <windows.h>
#else
#include <cerrno>
#include <cstdlib>

#include <unistd.h>
#endif

namespace Tavrin::SplatSource {
namespace {

// The most bytes that one system call is asked to move.
constexpr std::uint64_t mostBytes = std::uint64_t{1} << 30;

[[noreturn]] void fail(const std::filesystem::path& folder, const char* what, int code) {
    const std::u8string name = folder.u8string();
    const std::error_code error(code, std::system_category());
    throw ScratchError(
        std::string(name.begin(), name.end()) + ": " + what + ": " + error.message() +
            ": the input is unpacked there while it is converted: make room or choose another folder",
        error);
}

#ifdef _WIN32
// States the offset with each call, because several threads share the handle.
OVERLAPPED placeOf(std::uint64_t offset) {
    OVERLAPPED place{};
    place.Offset = static_cast<DWORD>(offset);
    place.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return place;
}
#endif

} // namespace

#ifdef _WIN32

ScratchFile::ScratchFile(const std::filesystem::path& place) : folder_(place) {
    wchar_t name[MAX_PATH];
    if (GetTempFileNameW(folder_.c_str(), L"ply", 0, name) == 0) {
        fail(folder_, "a scratch file cannot be created", static_cast<int>(GetLastError()));
    }
    const HANDLE file = CreateFileW(name, GENERIC_READ | GENERIC_WRITE | DELETE, 0, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        const DWORD code = GetLastError();
        DeleteFileW(name);
        fail(folder_, "a scratch file cannot be created", static_cast<int>(code));
    }
    handle_ = reinterpret_cast<std::intptr_t>(file);
}

ScratchFile::~ScratchFile() {
    CloseHandle(reinterpret_cast<HANDLE>(handle_));
}

void ScratchFile::write(std::uint64_t offset, const void* bytes, std::uint64_t size) {
    const auto* from = static_cast<const char*>(bytes);
    while (size > 0) {
        OVERLAPPED place = placeOf(offset);
        DWORD done = 0;
        if (WriteFile(reinterpret_cast<HANDLE>(handle_), from, static_cast<DWORD>(std::min(size, mostBytes)),
                      &done, &place) == 0) {
            fail(folder_, "the scratch file cannot be written", static_cast<int>(GetLastError()));
        }
        from += done;
        offset += done;
        size -= done;
    }
}

void ScratchFile::read(std::uint64_t offset, void* bytes, std::uint64_t size) const {
    auto* to = static_cast<char*>(bytes);
    while (size > 0) {
        OVERLAPPED place = placeOf(offset);
        DWORD done = 0;
        if (ReadFile(reinterpret_cast<HANDLE>(handle_), to, static_cast<DWORD>(std::min(size, mostBytes)),
                     &done, &place) == 0) {
            fail(folder_, "the scratch file cannot be read", static_cast<int>(GetLastError()));
        }
        to += done;
        offset += done;
        size -= done;
    }
}

#else

ScratchFile::ScratchFile(const std::filesystem::path& place) : folder_(place) {
    std::string name = (folder_ / ".plyconvert-scratch-XXXXXX").string();
    const int descriptor = mkstemp(name.data());
    if (descriptor < 0) {
        fail(folder_, "a scratch file cannot be created", errno);
    }
    unlink(name.c_str()); // the system frees it with its descriptor
    handle_ = descriptor;
}

ScratchFile::~ScratchFile() {
    close(static_cast<int>(handle_));
}

void ScratchFile::write(std::uint64_t offset, const void* bytes, std::uint64_t size) {
    const auto* from = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t done =
            pwrite(static_cast<int>(handle_), from, std::min(size, mostBytes), static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR) {
            continue;
        }
        if (done <= 0) {
            fail(folder_, "the scratch file cannot be written", done < 0 ? errno : ENOSPC);
        }
        from += done;
        offset += static_cast<std::uint64_t>(done);
        size -= static_cast<std::uint64_t>(done);
    }
}

void ScratchFile::read(std::uint64_t offset, void* bytes, std::uint64_t size) const {
    auto* to = static_cast<char*>(bytes);
    while (size > 0) {
        const ssize_t done =
            pread(static_cast<int>(handle_), to, std::min(size, mostBytes), static_cast<off_t>(offset));
        if (done < 0 && errno == EINTR) {
            continue;
        }
        if (done <= 0) {
            fail(folder_, "the scratch file cannot be read", done < 0 ? errno : EIO);
        }
        to += done;
        offset += static_cast<std::uint64_t>(done);
        size -= static_cast<std::uint64_t>(done);
    }
}

#endif

} // namespace Tavrin::SplatSource
