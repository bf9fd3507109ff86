// Reads files of any size through windows of a fixed size.
#pragma once

#include "reader/findings.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatReader {

// A path as messages show it: UTF-8 on every system.
std::string textOf(const std::filesystem::path& path);

inline constexpr std::size_t windowSize = std::size_t{1} << 20;

// One file of a dataset, opened for reading. Not to be shared between threads.
class DatasetFile {
public:
    // Throws DatasetError when the file is missing, is not a regular file or cannot be opened.
    DatasetFile(const std::filesystem::path& folder, std::string_view name);

    const std::string& name() const { return name_; }
    std::uint64_t size() const { return size_; } // when it was opened

    // Reads exactly `count` bytes at `offset`. Throws DatasetError when the file is too short.
    void read(std::uint64_t offset, std::byte* target, std::size_t count);

private:
    std::string name_;
    std::uint64_t size_ = 0;
    std::ifstream stream_;
};

// Reads a file forwards through one window.
class SequentialReader {
public:
    // Reads the bytes [offset, offset + length) of the file. `length` is an upper bound and decides no
    // allocation.
    SequentialReader(DatasetFile& file, std::uint64_t offset, std::uint64_t length,
                     std::size_t window = windowSize);

    std::uint64_t offset() const { return windowOffset_ + at_; } // of the next byte
    std::uint64_t remaining() const { return end_ - offset(); }
    // The next `count` bytes, contiguous, valid until the next call. `count` is at most the window.
    const std::byte* take(std::size_t count);

private:
    DatasetFile* file_;
    std::uint64_t end_;
    std::uint64_t windowOffset_; // of buffer_[0]
    std::size_t at_ = 0;         // in the buffer
    std::size_t filled_ = 0;
    std::vector<std::byte> buffer_;
};

} // namespace Tavrin::SplatReader
