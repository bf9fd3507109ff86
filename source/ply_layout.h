// How the vertices of a PLY file hold splats: which property gives which float of the canonical record.
#pragma once

#include "source/ply_header.h"
#include "src/records.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Tavrin::SplatSource {

// Natural logarithm of the third scale of flat splats, which have two: a millionth of the scene's unit.
inline constexpr float flatScale = -13.8155106f;

// A value in the fixed part of a vertex: its scalar properties one after the other, lists left out.
struct PlyColumn {
    std::size_t offset = 0; // bytes
    Scalar type = Scalar::float32;
};

struct SplatLayout {
    std::size_t recordBytes = 0; // of the fixed part
    bool hasLists = false;       // among the vertex properties
    int degree = 0;              // of the coefficients that are taken, 0 to 3
    // By place in the canonical record, whose form follows from the degree. A place without a column takes
    // its value from `constants`.
    std::vector<std::optional<PlyColumn>> columns;
    std::vector<float> constants;
    bool hasColourBytes = false; // red green blue stand in for f_dc
    bool isWide = false;         // a coordinate has a type that single precision cannot hold
    // The vertices are canonical records: every property a float, in order, and no other.
    bool isCanonical = false;
    std::vector<std::string> remarks; // what a user should know, a line each, without the file's name

    bool hasCoefficients() const { return degree > 0; }
    std::size_t floats() const { return columns.size(); }
};

// The properties of a canonical record, in order.
std::vector<std::string> canonicalNames(bool hasCoefficients);

// True when the header's vertices are packed: another reader takes them.
bool isCompressedPly(const PlyHeader& header);

// Throws SourceError when the header declares no splats. Its text starts with `name` and the line. It says
// what the file looks like instead, or what is missing.
SplatLayout splatLayoutOf(const PlyHeader& header, const std::string& name);

} // namespace Tavrin::SplatSource
