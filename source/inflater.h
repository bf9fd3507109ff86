// Unpacks gzip and zstd data from a part of a file, one buffer at a time.
//
// The checksum of gzip (CRC-32) takes a tenth of the time of unpacking. A caller may compute it elsewhere, of
// pieces in any order.
#pragma once

#include "source/record_file.h"

#include <cstdint>
#include <cstring>
#include <memory>

namespace Tavrin::SplatSource {

// The little-endian number that begins at `bytes`, which need no alignment.
template <typename Number>
Number numberAt(const std::uint8_t* bytes) {
    Number number;
    std::memcpy(&number, bytes, sizeof number);
    return number;
}

// The checksum of some bytes.
std::uint32_t sumOf(const std::uint8_t* bytes, std::uint64_t size);

// The checksum of two pieces, one behind the other, of which the second has `secondSize` bytes.
std::uint32_t joinSums(std::uint32_t first, std::uint32_t second, std::uint64_t secondSize);

// The first gzip member of a file.
class GzipReader {
public:
    // The file must outlive the object. Throws SourceError from all functions when the data is damaged.
    explicit GzipReader(const RecordFile& file);
    ~GzipReader();
    GzipReader(const GzipReader&) = delete;
    GzipReader& operator=(const GzipReader&) = delete;

    // Writes at most `size` unpacked bytes and returns their number. There are fewer only at the end of the
    // member, whose checksum and length have then been checked, unless that is left to the caller.
    std::uint64_t read(std::uint8_t* bytes, std::uint64_t size);

    // From now on the caller computes the checksum. To be called between two reads.
    void leaveSum();
    // At the end of the member. `sum` is that of all unpacked bytes, those before leaveSum among them. Throws
    // SourceError unless it and the length are those that the file states.
    void requireSum(std::uint32_t sum) const;

    bool isAtEnd() const;
    // Throws SourceError when there is more to unpack.
    void requireEnd();
    std::uint64_t bytesRead() const; // of the file, up to the end of the member

private:
    struct State;
    std::unique_ptr<State> state_;
};

// Consecutive zstd frames in [at, at + packed) of a file.
class ZstdReader {
public:
    // As GzipReader.
    ZstdReader(const RecordFile& file, std::uint64_t at, std::uint64_t packed);
    ~ZstdReader();
    ZstdReader(const ZstdReader&) = delete;
    ZstdReader& operator=(const ZstdReader&) = delete;

    // Writes at most `size` unpacked bytes and returns their number; fewer only at the end.
    std::uint64_t read(std::uint8_t* bytes, std::uint64_t size);
    // Throws SourceError when there is more to unpack or a frame is not whole.
    void requireEnd();

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace Tavrin::SplatSource
