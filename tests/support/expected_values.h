// The values that stand beside a sample file, and a source held against them.
#pragma once

#include "source/source.h"

#include <filesystem>

namespace support {

// Expects every record of a source to have the values that the JSON document at `expected` gives: the count,
// the first and the last splats, and the least, the greatest and the mean value of every column; where it has
// hashes of exact columns, those too, but for coefficients that a turn has rounded. `tolerance` is absolute,
// and relative for values above 1.
void expectValues(const Tavrin::SplatSource::Source& source, const std::filesystem::path& expected,
                  double tolerance, bool areCoefficientsExact = true);

} // namespace support
