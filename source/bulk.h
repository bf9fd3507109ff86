// Where the bulk of an input's splats lies, from a sample.
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

// Adds positions of an input: at most `mostRuns` runs of 256 adjacent records, evenly spread. Left out are
// those that single precision does not hold, for such splats are dropped as invalid, and those outside
// `crop`. The same input gives the same sample every time. Throws what the input throws.
void addSample(const Input& input, std::uint64_t mostRuns, const std::optional<Box>& crop, const Point& move,
               SampledAxes& axes);

// False for a position that single precision does not hold, and outside `crop`.
bool isHeldWithin(const double* position, const std::optional<Box>& crop);

// The value that a share (0 to 1) of the values lies below. Reorders the values, of which there is at least
// one.
double percentile(std::vector<double>& values, double share);

} // namespace Tavrin::SplatSource
