// Vertex records whose conversion gives the stored values again.
#pragma once

#include "reader/dequantiser.h"
#include "source/record_properties.h"

#include <array>
#include <cstdint>

namespace Tavrin::SplatProgram {

// Inverses of what a conversion does to the vertex properties. All results are finite.

// f_dc of a colour in [0, 1]. Full colour (1) comes out as full colour again in single precision.
float colourProperty(double colour);

// opacity, a logit, of an opacity in [0, 1]. 0 and 1 give -100 and 100, which every viewer turns into 0
// and 1.
float opacityProperty(double opacity);

// scale, a natural logarithm, of a linear scale. 0 gives -104, whose exponential is 0 in single precision.
float scaleProperty(double scale);

// rot_0 .. rot_3 (w, x, y, z) of a packed rotation: a unit quaternion that packs to the same word again.
// If components are nearly equal, the middles of their intervals can exceed the dropped component. They are
// then moved together until the dropped one is the largest.
std::array<float, 4> rotationProperties(std::uint32_t word);

// Room for a vertex record in either form.
using VertexRecord = std::array<float, GaussionSplat::layoutWithCoefficients.floats>;

// One vertex record. Without coefficients it is the smaller one, and the rest is left as it is.
void fillRecord(const SplatReader::Splat& splat, const SplatReader::Record& stored, bool hasCoefficients,
                VertexRecord& record);

} // namespace Tavrin::SplatProgram
