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

    // Reads the scalar properties of the vertices [first, first + size), in their order and without gaps;
    // list properties are left out. Numbers have the file's byte order, those of a text file the machine's.
    // Safe from several threads at once. Throws SourceError or SourceChanged.
    virtual void read(std::uint64_t first, std::uint64_t size, std::byte* vertices) const = 0;

    // Byte of the first vertex where all have one size, else 0.
    std::uint64_t vertexAt = 0;
    std::vector<std::string> remarks; // what a user should know, a line each, without the file's name
};

// Finds the vertices. Where every element up to them has a fixed size, arithmetic does. Lists are walked
// over. In a text file one pass on `threads` threads counts the words. No count that the file cannot hold
// decides an allocation. The file and the header must outlive the result. Throws SourceError.
std::unique_ptr<PlyBody> openPlyBody(const RecordFile& file, const PlyHeader& header, unsigned threads);

// Refuses counts that the file cannot hold, by its size alone. Throws SourceError.
void requireRoom(const RecordFile& file, const PlyHeader& header);

// The same as openPlyBody for a text file.
std::unique_ptr<PlyBody> openAsciiBody(const RecordFile& file, const PlyHeader& header, unsigned threads);

// The product, or UINT64_MAX where no 64-bit number holds it.
std::uint64_t productOf(std::uint64_t a, std::uint64_t b);
// The sum, or UINT64_MAX where no 64-bit number holds it.
std::uint64_t sumOf(std::uint64_t a, std::uint64_t b);

// The number of vertices from one entry of a body's index to the next, where records have no fixed size.
inline constexpr std::uint64_t indexStep = 1024;

} // namespace Tavrin::SplatSource
