// A file that several threads write at any offset. Every result is checked.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string_view>

namespace Tavrin::SplatStream {

class OutputFile {
public:
    // Creates the file, or empties it. Throws WriteError.
    explicit OutputFile(const std::filesystem::path& path);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile(); // closes it without looking at the result

    // Reserve this many bytes from the start of the file, where the file system can. A full disk then shows
    // before the work, and writing finds its place sooner. Throws WriteError when the bytes are not
    // available.
    void reserve(std::uint64_t bytes);

    // Throws WriteError.
    void write(std::uint64_t offset, const void* bytes, std::uint64_t length);

    // Throws WriteError. The file is closed in any case.
    void close();

private:
    std::filesystem::path path_;
    std::intptr_t handle_; // of the system

    [[noreturn]] void fail(const char* what, int error) const;

    // What differs between systems. Errors are the system's numbers, 0 for none.
    static std::intptr_t open(const std::filesystem::path& path, int& error);
    static int closeHandle(std::intptr_t handle);
    static int reserveBytes(std::intptr_t handle, std::uint64_t bytes);
    static std::uint64_t writeSome(std::intptr_t handle, std::uint64_t offset, const void* bytes,
                                   std::uint64_t length, int& error);
    static constexpr std::intptr_t closed = -1;
};

} // namespace Tavrin::SplatStream
