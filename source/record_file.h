// A file that several threads read at any offset. It can tell whether it is still the file that was opened.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace Tavrin::SplatSource {

// A path as messages show it: UTF-8 on every system.
std::string textOf(const std::filesystem::path& path);

// What identifies a file and its state.
struct FileState {
    std::uint64_t size = 0;   // bytes
    std::int64_t changed = 0; // time of the last write, in the unit of the system
    std::uint64_t device = 0; // device and number name the file itself, whatever its path
    std::uint64_t number = 0;

    bool operator==(const FileState&) const = default;
};

class RecordFile {
public:
    // Opens the file for reading. Throws SourceError.
    explicit RecordFile(const std::filesystem::path& path);
    RecordFile(const RecordFile&) = delete;
    RecordFile& operator=(const RecordFile&) = delete;
    ~RecordFile();

    const std::filesystem::path& path() const { return path_; }
    std::string name() const { return textOf(path_); }
    std::uint64_t size() const { return opened_.size; } // bytes, when it was opened

    // The bytes at [offset, offset + length). Throws SourceChanged when the file ends before or the system
    // fails to read.
    void read(std::uint64_t offset, void* destination, std::uint64_t length) const;

    // The same up to the end of the file; returns how many bytes there were.
    std::uint64_t readUpTo(std::uint64_t offset, void* destination, std::uint64_t length) const;

    // Throws SourceChanged when the path leads to another file by now, or the file was written to.
    void requireUnchanged() const;

private:
    std::filesystem::path path_;
    std::intptr_t handle_; // of the system
    FileState opened_;

    // What differs between systems. Errors are numbers of the system, 0 for none.
    static std::intptr_t open(const std::filesystem::path& path, int& error);
    static void close(std::intptr_t handle);
    static FileState stateOf(std::intptr_t handle, int& error);
    static FileState stateOf(const std::filesystem::path& path, int& error);
    // Up to length bytes, 0 at the end of the file.
    static std::uint64_t readSome(std::intptr_t handle, std::uint64_t offset, void* destination,
                                  std::uint64_t length, int& error);
};

} // namespace Tavrin::SplatSource
