// Finds where the bulk of an input's splats lies, from a sample.
#pragma once

#include "source/input.h"

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace Tavrin::SplatSource {

inline constexpr std::uint64_t mostSampleRuns = 256;

// Coordinates of a sample, axis by axis.
using SampledAxes = std::array<std::vector<double>, 3>;

// Adds positions of an input, plus `move`, to `axes`: at most `mostRuns` runs of 256 adjacent records, evenly
// spread. Leaves out positions outside `crop`, and those beyond single precision, whose splats are dropped as
// invalid. The same input gives the same sample every time. Throws what the input throws.
void addSample(const Input& input, std::uint64_t mostRuns, const std::optional<Box>& crop, const Point& move,
               SampledAxes& axes);

// False for a position beyond single precision or outside `crop`.
bool isHeldWithin(const double* position, const std::optional<Box>& crop);

// The value below which `share` (0 to 1) of the values lie. Reorders the values; there is at least one.
double percentile(std::vector<double>& values, double share);

} // namespace Tavrin::SplatSource
