// The output record of one splat, and the levels and cells that hold all of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

namespace Tavrin::GaussionSplat {

// One quantised record, little-endian. Bytes 0 to 31 are its record in data.bin. The packed or the raw
// coefficients are its record in shcoef.bin. Bytes that the chosen layout does not use stay unset and are
// never written.
struct SplatsData {
    float position[3];
    std::uint8_t colour[4]; // red, green, blue, opacity
    std::uint16_t scale[3];
    std::uint8_t rotation[4]; // a 32-bit word, unaligned
    std::uint16_t normal[3];
    std::uint32_t packed[16]; // one word a coefficient, then zeros
    float raw[48];            // R0, G0, B0, R1, ... and three zeros

    // Sets nothing, so that a vector of records is made without touching its memory.
    SplatsData() {} // if it were defaulted, vectors would clear it
};
static_assert(sizeof(SplatsData) == 288 && alignof(SplatsData) == 4);
static_assert(offsetof(SplatsData, position) == 0 && offsetof(SplatsData, colour) == 12);
static_assert(offsetof(SplatsData, scale) == 16 && offsetof(SplatsData, rotation) == 22);
static_assert(offsetof(SplatsData, normal) == 26 && offsetof(SplatsData, packed) == 32);
static_assert(offsetof(SplatsData, raw) == 96);

inline constexpr std::size_t dataRecordSize = 32;
inline constexpr std::size_t packedCoefficientsSize = sizeof(SplatsData::packed);
inline constexpr std::size_t rawCoefficientsSize = sizeof(SplatsData::raw);

// The splats of one cell at one level, in the order of the block list and of each block.
using SplatCell = std::vector<SplatsData>;

// By cell key: column in bits 0 to 15, row in bits 16 to 31.
using CellMap = std::unordered_map<std::uint32_t, std::shared_ptr<SplatCell>>;

// Every map of the indexer starts with this many buckets and the standard's own maximum load factor of 1.
inline constexpr std::size_t initialBuckets = 8;

struct LODData {
    std::uint32_t splatCount = 0;
    std::shared_ptr<CellMap> cells = std::make_shared<CellMap>(initialBuckets);
};

// By level number.
using LevelMap = std::unordered_map<std::uint32_t, std::shared_ptr<LODData>>;

} // namespace Tavrin::GaussionSplat
