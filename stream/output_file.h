// A file that is written at any place by several threads, with every result looked at.
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

    // Have the file system set this many bytes aside from the start on, where it can: a full disk shows
    // before the work, and writing finds its place sooner. Throws WriteError when they are not to be had.
    void reserve(std::uint64_t bytes);

    // Throws WriteError.
    void write(std::uint64_t offset, const void* bytes, std::uint64_t length);

    // Throws WriteError. The file is closed in any case.
    void close();

private:
    std::filesystem::path path_;
    std::intptr_t handle_; // of the system

    [[noreturn]] void fail(const char* what, int error) const;

    // What differs between systems. Errors are numbers of the system, 0 for none.
    static std::intptr_t open(const std::filesystem::path& path, int& error);
    static int closeHandle(std::intptr_t handle);
    static int reserveBytes(std::intptr_t handle, std::uint64_t bytes);
    static std::uint64_t writeSome(std::intptr_t handle, std::uint64_t offset, const void* bytes,
                                   std::uint64_t length, int& error);
    static constexpr std::intptr_t closed = -1;
};

} // namespace Tavrin::SplatStream
