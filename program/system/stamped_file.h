// An open file that tells whether it has changed since it was opened.
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
    // Distinguishes the contents of a file, within the resolution of the file system's clock.
    struct Stamp {
        FileIdentity identity;
        std::uint64_t size = 0; // in bytes
        std::int64_t time = 0;  // of the last write, in the system's own units
        bool operator==(const Stamp&) const = default;
    };

    // Nothing, and `error` set, when it is not a regular file or cannot be opened. Other processes may still
    // rename, remove and replace the file: this object keeps the one that it opened.
    static std::optional<StampedFile> open(const std::filesystem::path& path, std::error_code& error);

    StampedFile(StampedFile&& other) noexcept;
    StampedFile& operator=(StampedFile&& other) noexcept {
        std::swap(handle_, other.handle_);
        std::swap(stamp_, other.stamp_);
        return *this;
    }
    ~StampedFile();

    // The stamp at the time of opening.
    const Stamp& stamp() const { return stamp_; }

    // True if the file still has that stamp.
    bool isUnchanged() const;

    // Reads exactly `count` bytes at `offset`. False if there are fewer, or on an error. Thread-safe, since
    // it moves no file position.
    bool read(std::uint64_t offset, char* target, std::size_t count) const;

private:
    StampedFile(std::intptr_t handle, const Stamp& stamp) : handle_(handle), stamp_(stamp) {}

    std::intptr_t handle_;
    Stamp stamp_;
};

} // namespace Tavrin::SplatProgram
