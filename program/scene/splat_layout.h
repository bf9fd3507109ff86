// Whether the vertices of a PLY file are the records that the converter reads.
#pragma once

#include "program/scene/ply_header.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace Tavrin::SplatProgram {

// One of the two vertex records that the converter reads: 62 four-byte floats, or 17 without the 45 rest
// coefficients. Both start with x y z.
struct SplatLayout {
    std::uint32_t floats = 0;
    bool hasCoefficients() const { return floats == 62; }
    std::uint32_t recordBytes() const { return floats * 4; }
    std::uint32_t scaleFloat() const { return floats - 7; }  // index of scale_0 in the record
    int degree() const { return hasCoefficients() ? 3 : 0; } // of the spherical harmonics
};

struct LayoutProblem {
    std::size_t line = 0; // of the header, from 1
    std::string text;     // what differs first and what to do
};

// The layout of a header whose only element is "vertex" with exactly the properties of one record, in order;
// else what differs first.
struct LayoutResult {
    SplatLayout layout; // meaningful without a problem
    std::optional<LayoutProblem> problem;
};
LayoutResult splatLayoutOf(const PlyHeader& header);

} // namespace Tavrin::SplatProgram
