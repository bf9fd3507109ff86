// One input of a scene as its file holds it, before splats are dropped, moved or merged.
#pragma once

#include "source/comments.h"
#include "source/source.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tavrin::SplatSource {

// A source of one file. It drops nothing: read gives every record.
struct Input : Source {
    std::string name;                 // as messages show it
    std::string kind;                 // "PLY, binary_little_endian", ...
    int degree = 0;                   // of the spherical harmonics that records hold, 0 to 3
    SceneComments stated;             // numbers as written; empty for kinds of files that state none
    std::vector<std::string> remarks; // for the user, a line each, without the file's name
    // Coordinates may need more than single precision. readWide gives them in full.
    bool isWide = false;
    // The file does not say whether scales are logarithms and opacities logits, so its values have to tell.
    bool hasOpenUnits = false;
    // Records and header are the converter's own form, byte for byte.
    bool isCanonical = false;
    std::uint64_t scratchBytes = 0; // of disk space, to unpack the file before records can be read

    // As read. Also writes x y z of each record in double to `positions`, unless that is null.
    virtual void readWide(std::uint64_t first, std::uint64_t size, float* records,
                          double* positions) const = 0;

    // x y z of each record alone, in double, as the file states them.
    virtual void readPositions(std::uint64_t first, std::uint64_t size, double* positions) const;

    // More remarks, which only reading the whole file tells. Reads what has not been read so far. Throws as
    // readWide does.
    virtual std::vector<std::string> laterRemarks() const { return {}; }

    std::uint64_t read(std::uint64_t first, std::uint64_t size, float* records) const override {
        readWide(first, size, records, nullptr);
        return size;
    }
};

// Writes x y z of records of this many floats, widened, to `positions` unless that is null. For inputs whose
// coordinates need no more than single precision.
void copyPositions(const float* records, std::size_t floats, std::uint64_t size, double* positions);

} // namespace Tavrin::SplatSource
