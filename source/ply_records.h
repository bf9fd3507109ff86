// Turns the vertices of a PLY file into canonical records: the inner loops.
#pragma once

#include "source/ply_layout.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tavrin::SplatSource {

// The list of copies from vertex to record, made once for a layout. Single-precision values keep their bits.
class RecordMap {
public:
    RecordMap(const SplatLayout& layout, bool isBigEndian);

    // Turns `count` vertices into records of the layout's floats. A vertex has the layout's recordBytes,
    // without gaps.
    void map(const std::byte* vertices, std::uint64_t count, float* records) const;

    // x y z of each vertex in double.
    void mapPositions(const std::byte* vertices, std::uint64_t count, double* positions) const;

    // The same for vertices that are canonical records: swaps their bytes in place if they need it.
    void mapInPlace(float* records, std::uint64_t count) const;

private:
    struct Move {
        std::size_t from = 0; // byte of the vertex
        std::size_t to = 0;   // float of the record
        std::size_t count = 1;
        Scalar type = Scalar::float32;
    };
    struct Constant {
        std::size_t to = 0;
        float value = 0.0f;
    };

    template <bool isSwapped>
    void mapAs(const std::byte* vertices, std::uint64_t count, float* records) const;
    template <bool isSwapped>
    void positionsAs(const std::byte* vertices, std::uint64_t count, double* positions) const;

    std::size_t vertexBytes_;
    std::size_t recordFloats_;
    bool isSwapped_;
    std::vector<Move> runs_;    // floats that lie side by side in both, eight or more
    std::vector<Move> floats_;  // single floats
    std::vector<Move> doubles_; // single doubles
    std::vector<Move> others_;  // integers
    std::vector<Move> colours_; // bytes that stand in for f_dc
    std::vector<Constant> constants_;
    Move positions_[3];
};

} // namespace Tavrin::SplatSource
