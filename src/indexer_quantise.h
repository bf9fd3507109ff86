// Quantising one decoded splat into its output record, and the key of the cell it lies in.
#pragma once

#include "src/indexer_records.h"
#include "src/records.h"
#include "src/splatheader.h"

#include <cstdint>

namespace Tavrin::GaussionSplat {

// The bounds of one value for quantisation.
struct QuantiseRange {
    double min = 0.0;
    double extent = 0.0; // max - min
};

// What quantisation needs to know of a scene.
struct QuantiseSettings {
    bool hasShcoef = false;
    bool compressed = true;
    QuantiseRange scale[3];
    QuantiseRange normal[3];
    QuantiseRange shcoef[3]; // red, green, blue
};

QuantiseSettings quantiseSettings(const AttributeBounding& bounding, bool compressed);

// Fill record from a decoded splat of 62 floats (settings.hasShcoef) or 17.
void quantiseSplat(const float* splat, const QuantiseSettings& settings, SplatsData& record);

// The pieces, each as a record holds it.
std::uint8_t quantiseColour(float value); // low 8 bits of trunc(value * 255)
std::uint16_t quantise16(float value,
                         const QuantiseRange& range);  // low 16 bits of trunc(normalised * 65535.5)
std::uint32_t packRotationWord(const float* rotation); // 10, 10, 10 and 2 bits
std::uint32_t packCoefficientWord(float red, float green, float blue,
                                  const QuantiseRange (&ranges)[3]); // 11, 10, 11 bits

// The cell of a splat: X index in the low 16 bits OR-ed with the Y index shifted left by 16. Neither is
// masked: an index below 0 or above 65,535 runs into the other half.
std::uint32_t cellKey(float x, float y, const ChunkGrid& grid);

} // namespace Tavrin::GaussionSplat
