// Compressed PLY: 16 bytes a splat. Its values are fractions of the ranges of its chunk, a group of 256
// splats.
#pragma once

#include "source/input.h"
#include "source/ply_header.h"
#include "source/record_file.h"

#include <cstdint>
#include <filesystem>

namespace Tavrin::SplatSource {

// A compressed PLY file: elements chunk, vertex and, above degree 0, sh. Records are read when they are asked
// for.
struct CompressedPlyInput final : Input {
    // Throws SourceError when elements, properties, counts or the file's size are not those of the format.
    CompressedPlyInput(const std::filesystem::path& path, const PlyHeader& header);

    void readWide(std::uint64_t first, std::uint64_t size, float* records, double* positions) const override;
    void requireUnchanged() const override;

private:
    RecordFile file_;
    std::uint64_t chunkFloats_ = 0;      // 12, or 18 with ranges of colours
    std::uint64_t coefficientBytes_ = 0; // of a splat: 0, 9, 24 or 45
    std::uint64_t chunksAt_ = 0;         // byte offsets
    std::uint64_t wordsAt_ = 0;
    std::uint64_t coefficientsAt_ = 0;

    void checkLayout(const PlyHeader& header);
};

} // namespace Tavrin::SplatSource
