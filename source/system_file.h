// An open file, read and written at any offset, for sources and conversions. Its functions differ between
// systems.
#pragma once

#include <cstdint>
#include <filesystem>

namespace Tavrin::SplatSource {

// What identifies a file and its state.
struct FileState {
    std::uint64_t size = 0;   // bytes
    std::int64_t changed = 0; // time of the last write, in the unit of the system
    std::uint64_t device = 0; // device and number name the file itself, whatever its path
    std::uint64_t number = 0;

    bool operator==(const FileState&) const = default;
};

// Errors are the system's numbers, 0 for none. Reading and writing are thread-safe.
class SystemFile {
public:
    SystemFile() = default; // no file
    SystemFile(const SystemFile&) = delete;
    SystemFile& operator=(const SystemFile&) = delete;
    ~SystemFile() { close(); }

    // Call one of the two open functions once. Other processes may write, rename and remove a file that is
    // open for reading.
    int openToRead(const std::filesystem::path& path);
    // Creates the file, or empties it.
    int openToWrite(const std::filesystem::path& path);
    // The file is closed in any case.
    int close();

    FileState state(int& error) const;
    static FileState stateOf(const std::filesystem::path& path, int& error);

    // Up to length bytes, 0 at the end of the file.
    std::uint64_t readSome(std::uint64_t offset, void* destination, std::uint64_t length, int& error) const;
    // At least one byte unless there is an error.
    std::uint64_t writeSome(std::uint64_t offset, const void* bytes, std::uint64_t length, int& error);

    // Reserves these bytes where the file system can.
    int reserve(std::uint64_t offset, std::uint64_t bytes);

private:
    static constexpr std::intptr_t none = -1;
    // Systems move less than 2^31 bytes at a time.
    static constexpr std::uint64_t mostAtOnce = std::uint64_t{1} << 30;

    std::intptr_t handle_ = none; // of the system
};

} // namespace Tavrin::SplatSource
