// A file that is opened once and tells whether it was written to since.
#pragma once

#include "program/system/platform.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

namespace Tavrin::SplatProgram {

class StampedFile {
public:
    // What tells one content of a file from another, to the tick of the file system's clock.
    struct Stamp {
        FileIdentity identity;
        std::uint64_t size = 0; // in bytes
        std::int64_t time = 0;  // of the last write, in units of the system's own
        bool operator==(const Stamp&) const = default;
    };

    // Nothing, and the error, when there is no such plain file or it cannot be opened. Other processes may
    // rename, remove and replace the file further on: this object stays with the one that it has opened.
    static std::optional<StampedFile> open(const std::filesystem::path& path, std::error_code& error);

    StampedFile(StampedFile&& other) noexcept;
    StampedFile& operator=(StampedFile&& other) noexcept {
        std::swap(handle_, other.handle_);
        std::swap(stamp_, other.stamp_);
        return *this;
    }
    ~StampedFile();

    // When it was opened.
    const Stamp& stamp() const { return stamp_; }

    // The file still has that stamp.
    bool isUnchanged() const;

    // Reads exactly `count` bytes at `offset`; false when there are fewer, or on an error. Moves no position
    // in the file, so that several may read at once.
    bool read(std::uint64_t offset, char* target, std::size_t count) const;

private:
    StampedFile(std::intptr_t handle, const Stamp& stamp) : handle_(handle), stamp_(stamp) {}

    std::intptr_t handle_;
    Stamp stamp_;
};

} // namespace Tavrin::SplatProgram
