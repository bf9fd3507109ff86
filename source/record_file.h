// A file that several threads read at any offset. It notices when the file has changed since it was opened.
#pragma once

#include "source/system_file.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

namespace Tavrin::SplatSource {

// A path as messages show it: UTF-8 on every system.
std::string textOf(const std::filesystem::path& path);

// Called now and then during long work, from any of its threads. An exception from it ends the work.
using Pause = std::function<void()>;

class RecordFile {
public:
    // Opens the file for reading. Calls `pause` before every read, unless it is empty. Throws SourceError.
    explicit RecordFile(const std::filesystem::path& path, Pause pause = {});
    RecordFile(const RecordFile&) = delete;
    RecordFile& operator=(const RecordFile&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string name() const { return textOf(path_); }
    std::uint64_t size() const { return opened_.size; } // bytes, when it was opened

    // The bytes at [offset, offset + length). Throws SourceChanged when the file ends before or the system
    // fails to read.
    void read(std::uint64_t offset, void* destination, std::uint64_t length) const;

    // The same, but stops at the end of the file. Returns the number of bytes.
    std::uint64_t readUpTo(std::uint64_t offset, void* destination, std::uint64_t length) const;

    // Calls `pause`, for work that goes on without reading.
    void pause() const;

    // Throws SourceChanged when the path now leads to another file, or the file was written to.
    void requireUnchanged() const;

private:
    std::filesystem::path path_;
    Pause pause_;
    SystemFile file_;
    FileState opened_;
};

} // namespace Tavrin::SplatSource
