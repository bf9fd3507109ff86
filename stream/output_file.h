// A file that several threads write at any offset. Every result is checked.
#pragma once

#include "source/system_file.h"

#include <cstdint>
#include <filesystem>
#include <functional>

namespace Tavrin::SplatStream {

class OutputFile {
public:
    // Creates the file, or empties it. Throws WriteError.
    explicit OutputFile(const std::filesystem::path& path);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    // Reserves this many bytes from the start of the file, if the file system can. A full disk then shows
    // before the work, and writes are faster. Calls `pause` now and then, because reserving a gigabyte in
    // memory takes some tenths of a second. Throws WriteError when the bytes are not available, and what
    // `pause` throws.
    void reserve(std::uint64_t bytes, const std::function<void()>& pause);

    // Throws WriteError.
    void write(std::uint64_t offset, const void* bytes, std::uint64_t length);

    // Throws WriteError. The file is closed in any case.
    void close();

private:
    std::filesystem::path path_;
    SplatSource::SystemFile file_;

    [[noreturn]] void fail(const char* what, int error) const;
};

} // namespace Tavrin::SplatStream
