// Opens a canonical PLY file with the values of the library's own header reader, to compare the two
// conversions.
#pragma once

#include "source/canonical_ply.h"
#include "src/splatheader.h"

#include <cstdint>
#include <filesystem>
#include <memory>

namespace Tavrin::SplatStream {

// `header` and `params` are the results of readSplatHeader for the file, without negative numbers. Throws
// SourceError.
inline std::unique_ptr<SplatSource::CanonicalPly> openCanonicalScene(const std::filesystem::path& path,
                                                                     const GaussionSplat::SplatHeader& header,
                                                                     const GaussionSplat::Params& params) {
    return std::make_unique<SplatSource::CanonicalPly>(
        path, SplatSource::CanonicalPlyFacts{.bodyAt = static_cast<std::uint64_t>(header.headerEnd),
                                             .count = static_cast<std::uint64_t>(header.vertexCount),
                                             .hasCoefficients = header.hasShcoef,
                                             .params = params,
                                             .boundsSeen = header.boundsFromHeader});
}

} // namespace Tavrin::SplatStream
