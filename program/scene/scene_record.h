// Makes vertex records that convert to the same stored values again.
#pragma once

#include "reader/dequantiser.h"
#include "source/record_properties.h"

#include <array>
#include <cstdint>

namespace Tavrin::SplatProgram {

// The inverses of a conversion's decoding of vertex properties. All results are finite.

// f_dc of a colour in [0, 1]. A colour of 1 converts to exactly 1 again in single precision.
float colourProperty(double colour);

// The property `opacity`, a logit, of an opacity in [0, 1]. 0 and 1 give -100 and 100, which every viewer
// shows as 0 and 1.
float opacityProperty(double opacity);

// The property `scale_N`, a natural logarithm, of a linear scale. 0 gives -104, whose exponential is 0 in
// single precision.
float scaleProperty(double scale);

// rot_0 .. rot_3 (w, x, y, z) of a packed rotation: a unit quaternion that packs to the same word again. If
// components are nearly equal, the middles of their intervals can exceed the dropped component. These
// components and the dropped one are then set to nearly the same value, the dropped one the largest.
std::array<float, 4> rotationProperties(std::uint32_t word);

// Large enough for a vertex record in either form.
using VertexRecord = std::array<float, GaussionSplat::layoutWithCoefficients.floats>;

// Fills `record` with a splat's vertex record. Without coefficients only the floats of the smaller record are
// set.
void fillRecord(const SplatReader::Splat& splat, const SplatReader::Record& stored, bool hasCoefficients,
                VertexRecord& record);

} // namespace Tavrin::SplatProgram
