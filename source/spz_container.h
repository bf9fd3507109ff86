// Reads the headers of SPZ files, and unpacks their contents.
#pragma once

#include "source/record_file.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatSource {

// The arrays of an SPZ file, in their order.
enum class SpzArray { positions, opacities, colours, scales, rotations, coefficients };
inline constexpr int spzArrays = 6;

struct SpzHeader {
    bool isGzip = false; // one gzip member around everything; else a plain header, then zstd streams
    std::uint32_t version = 0;
    std::uint64_t splats = 0;
    int degree = 0; // of the spherical harmonics, 0 to 4
    int fractionBits = 0;
    bool hasExtensions = false;
    // Plain header only.
    int streams = 0;
    std::uint64_t tableAt = 0; // byte offset of the table of streams

    // Bytes of one splat in an array.
    std::uint64_t bytesOf(SpzArray array) const;
    // The offset of an array in the unpacked bytes.
    std::uint64_t startOf(SpzArray array) const;
    std::uint64_t arrayBytes() const { return startOf(SpzArray{spzArrays}); }
};

// What a file holds besides its arrays.
struct SpzContent {
    std::uint32_t axesCode = 0; // as stated, known or not; 0 when the file states none
    std::vector<std::string> remarks;
};

// Unpacks consecutive arrays of a file, front to back, through buffers of fixed size. One thread at a time
// may use it.
class SpzUnpacker {
public:
    // The bytes [start, end) of all arrays.
    SpzUnpacker(std::uint64_t start, std::uint64_t end) : start_(start), end_(end) {}
    virtual ~SpzUnpacker() = default;
    SpzUnpacker(const SpzUnpacker&) = delete;
    SpzUnpacker& operator=(const SpzUnpacker&) = delete;

    std::uint64_t start() const { return start_; }
    std::uint64_t end() const { return end_; }

    // Writes the next `size` bytes; at least that many are left. With the last byte, it also checks what
    // comes after it. Throws SourceError when the file is damaged: wrong checksums or lengths, missing or
    // surplus bytes.
    virtual void read(std::uint8_t* bytes, std::uint64_t size) = 0;

    // The checksum of what comes before the arrays, if the checksum is left to the caller. The caller joins
    // the checksums of the bytes (sumOf) to it and calls requireSum after the last read. requireSum throws
    // SourceError when the result is not that of the file.
    virtual std::optional<std::uint32_t> leftSum() const { return {}; }
    virtual void requireSum(std::uint32_t) const {}

    // What the file holds before the arrays and, once the last byte is read, after them.
    SpzContent content;

private:
    std::uint64_t start_;
    std::uint64_t end_;
};

// True when the bytes start like an SPZ file, or like any gzip file.
bool looksLikeSpz(std::string_view start);

// Reads and checks the header. No size in it decides an allocation. Throws SourceError, also for a count that
// the file cannot hold.
SpzHeader readSpzHeader(const RecordFile& file);

// The unpackers of a file's arrays, in their order: one, or two that may run at the same time if the file
// packs each array separately. `file` must outlive them. Throws SourceError.
std::vector<std::unique_ptr<SpzUnpacker>> makeSpzUnpackers(const RecordFile& file, const SpzHeader& header);

} // namespace Tavrin::SplatSource
