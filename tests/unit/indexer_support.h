// Decoded blocks and their expected records, for the tests of the indexer.
#pragma once

#include "src/chunker.h"
#include "src/chunker_decode.h"
#include "src/large_pages.h"
#include "src/records.h"
#include "tests/reference/splats.h"
#include "tests/support/floats.h"
#include "tests/support/plyfile.h"

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace Tavrin::GaussionSplat {

inline void setRange(AttributeRange& range, const reference::Bounds (&bounds)[3]) {
    range.min = {bounds[0].min, bounds[1].min, bounds[2].min};
    range.max = {bounds[0].max, bounds[1].max, bounds[2].max};
}

inline std::shared_ptr<AttributeBounding> boundingOf(const reference::Ranges& ranges, bool hasCoefficients) {
    auto bounding = std::make_shared<AttributeBounding>();
    setRange(bounding->position, ranges.position);
    setRange(bounding->normal, ranges.normal);
    setRange(bounding->color, ranges.colour);
    setRange(bounding->shcoef, ranges.coefficients);
    setRange(bounding->scale, ranges.scale);
    bounding->opacity.min.x = ranges.opacity.min;
    bounding->opacity.max.x = ranges.opacity.max;
    bounding->hasShcoef = hasCoefficients;
    return bounding;
}

// A block that holds a copy of decoded records.
inline std::shared_ptr<ChunkData> blockOf(const std::vector<float>& records, bool hasCoefficients,
                                          std::uint32_t level = 0) {
    auto block = std::make_shared<ChunkData>();
    block->splatCount = static_cast<std::uint32_t>(records.size() / recordLayout(hasCoefficients).floats);
    block->level = level;
    block->data = makeLargeArray<float>(records.size()).release();
    if (!records.empty()) {
        std::memcpy(block->data, records.data(), records.size() * sizeof(float));
    }
    return block;
}

// Decoded splats as trained scenes have them, spread over a square of this half side around the origin.
inline std::vector<float> decodedScene(support::Random& random, std::size_t count, bool hasCoefficients,
                                       float halfSide) {
    support::PlyFile file;
    file.coefficients = hasCoefficients;
    for (std::size_t i = 0; i < count; ++i) {
        file.add(support::randomSplat(random, 2 * halfSide, 2 * halfSide));
    }
    for (std::size_t i = 0; i < count; ++i) {
        reference::decode(file.records.data() + i * file.recordFloats(), hasCoefficients);
    }
    return file.records;
}

inline reference::Ranges rangesOf(const std::vector<float>& decoded, bool hasCoefficients) {
    reference::Ranges ranges;
    const std::size_t recordFloats = recordLayout(hasCoefficients).floats;
    for (std::size_t at = 0; at < decoded.size(); at += recordFloats) {
        ranges.widen(decoded.data() + at, hasCoefficients);
    }
    return ranges;
}

} // namespace Tavrin::GaussionSplat
