// The containers of SPZ files: their headers, and unpacking what they hold.
#pragma once

#include "source/record_file.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatSource {

// The arrays of an SPZ file, in their order.
enum class SpzArray { positions, opacities, colours, scales, rotations, coefficients };
inline constexpr int spzArrays = 6;

struct SpzHeader {
    bool isGzip = false; // one gzip member around everything, else zstd streams behind a plain header
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
    // Where an array starts in the unpacked bytes, and the bytes of all arrays.
    std::uint64_t startOf(SpzArray array) const;
    std::uint64_t arrayBytes() const { return startOf(SpzArray{spzArrays}); }
};

// What unpacking finds beside the arrays.
struct SpzContent {
    std::uint32_t axesCode = 0; // as stated, known or not; 0 when the file states none
    std::vector<std::string> remarks;
};

// Takes unpacked bytes of the arrays, which come in the order of their offsets.
using SpzSink = std::function<void(std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t size)>;

// True when the bytes start like an SPZ file, or like any gzip file.
bool looksLikeSpz(std::string_view start);

// Reads and checks the header. No size that it states decides an allocation. A count that the file cannot
// hold is refused. Throws SourceError.
SpzHeader readSpzHeader(const RecordFile& file);

// Unpacks the arrays of a file through buffers of fixed size. Throws SourceError when the file is damaged:
// wrong checksums or lengths, missing or surplus bytes.
SpzContent unpackSpz(const RecordFile& file, const SpzHeader& header, const SpzSink& sink);

} // namespace Tavrin::SplatSource
