// Finds which property of a PLY file's vertices gives which float of the canonical record.
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

// The natural logarithm of a millionth of the scene's unit: the third scale of flat splats, which have two.
inline constexpr float flatScale = -13.8155106f;

// A value in the fixed part of a vertex, which is its scalar properties without gaps and without the lists.
struct PlyColumn {
    std::size_t offset = 0; // bytes
    Scalar type = Scalar::float32;
};

struct SplatLayout {
    std::size_t recordBytes = 0; // of the fixed part
    bool hasLists = false;       // among the vertex properties
    int degree = 0;              // of the coefficients that are used, 0 to 3
    // For each float of the canonical record, whose form follows from the degree: its column, or its value in
    // `constants` if it has none.
    std::vector<std::optional<PlyColumn>> columns;
    std::vector<float> constants;
    bool hasColourBytes = false; // red green blue stand in for f_dc
    bool isWide = false;         // a coordinate has a type that single precision cannot hold
    // The vertices are canonical records: every property a float, in order, and no other.
    bool isCanonical = false;
    std::vector<std::string> remarks; // for the user, a line each, without the file's name

    bool hasCoefficients() const { return degree > 0; }
    std::size_t floats() const { return columns.size(); }
};

// The properties of a canonical record, in order.
std::vector<std::string> canonicalNames(bool hasCoefficients);

// True if the header's vertices are packed, so that CompressedPlyInput reads them.
bool isCompressedPly(const PlyHeader& header);

// Throws SourceError when the header declares no splats. Its text starts with `name` and the line, and says
// what is missing or what the file looks like instead.
SplatLayout splatLayoutOf(const PlyHeader& header, const std::string& name);

} // namespace Tavrin::SplatSource
