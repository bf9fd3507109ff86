// Compares a source with the expected values beside a sample file.
#pragma once

#include "source/source.h"

#include <filesystem>

namespace support {

// Expects the values of the JSON document at `expected`: the count, the first and the last splats, and the
// minimum, maximum and mean of every column. If the document has hashes of exact columns, they must match,
// too; with `areCoefficientsExact` false the coefficients' hash is skipped, because a change of axes rounds
// them. `tolerance` is absolute, and relative for values above 1.
void expectValues(const Tavrin::SplatSource::Source& source, const std::filesystem::path& expected,
                  double tolerance, bool areCoefficientsExact = true);

} // namespace support
