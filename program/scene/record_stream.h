// Reads the fixed-size records of a file in order, in bounded memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <vector>

namespace Tavrin::SplatProgram {

// Reads forwards through a window of 1 MiB.
class RecordStream {
public:
    // `count` records of `stride` bytes from byte `offset` on; `stride` is at least 1. At most
    // `windowRecords` are read at a time; a small number wastes less where records are skipped.
    RecordStream(const std::filesystem::path& path, std::uint64_t offset, std::uint64_t stride,
                 std::uint64_t count, std::uint64_t windowRecords = UINT64_MAX);

    // The next record, valid until the next call; null after the last. Throws a Failure: InputRefused when
    // the file is too short or cannot be read; Interrupted when an interrupt was noted.
    const std::byte* next();

    // Reads the next window of records into `records`, which is resized to them. Returns their number, 0
    // after the last. Throws as next() does.
    std::uint64_t read(std::vector<std::byte>& records);

    // Skips `records` records without reading them.
    void skip(std::uint64_t records);

    std::uint64_t position() const { return position_; } // number of the next record

private:
    std::uint64_t readAt(std::uint64_t first, std::vector<std::byte>& records);

    std::filesystem::path path_;
    std::ifstream stream_;
    std::uint64_t offset_;
    std::uint64_t stride_;
    std::uint64_t count_;
    std::uint64_t windowRecords_;
    std::uint64_t position_ = 0;
    std::uint64_t windowFirst_ = 0; // number of the first record in the window
    std::uint64_t windowCount_ = 0;
    std::vector<std::byte> window_;
};

} // namespace Tavrin::SplatProgram
