// Finds the vertices of a PLY file, and reads their fixed part from any record on.
#pragma once

#include "source/ply_header.h"
#include "source/record_file.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Tavrin::SplatSource {

// The vertices of one file. The header gives their number; opening has checked that they all exist.
struct PlyBody {
    PlyBody() = default;
    PlyBody(const PlyBody&) = delete;
    PlyBody& operator=(const PlyBody&) = delete;
    virtual ~PlyBody() = default;

    // Reads the scalar properties of the vertices [first, first + size), in their order and without gaps,
    // without lists. Numbers keep the byte order of the file; from a text file they have the machine's.
    // Thread-safe. Throws SourceError or SourceChanged.
    virtual void read(std::uint64_t first, std::uint64_t size, std::byte* vertices) const = 0;

    // The offset of the first vertex if all have one size, else 0.
    std::uint64_t vertexAt = 0;
    std::vector<std::string> remarks; // for the user, a line each, without the file's name
};

// Finds the vertices: by arithmetic if every element up to them has a fixed size, else by walking over the
// lists. In a text file one pass on `threads` threads counts the words. A count decides an allocation only if
// the file can hold it. The file and the header must outlive the result. Throws SourceError.
std::unique_ptr<PlyBody> openPlyBody(const RecordFile& file, const PlyHeader& header, unsigned threads);

// Throws SourceError for a count that a file of this size cannot hold.
void requireRoom(const RecordFile& file, const PlyHeader& header);

// The same as openPlyBody for a text file.
std::unique_ptr<PlyBody> openAsciiBody(const RecordFile& file, const PlyHeader& header, unsigned threads);

// The product, or UINT64_MAX if it does not fit 64 bits.
std::uint64_t productOf(std::uint64_t a, std::uint64_t b);
// The sum, or UINT64_MAX if it does not fit 64 bits.
std::uint64_t sumOf(std::uint64_t a, std::uint64_t b);

// The number of vertices between two entries of a body's index, if records have no fixed size.
inline constexpr std::uint64_t indexStep = 1024;

} // namespace Tavrin::SplatSource
