// The conversion of one splat, step by step as its formulas state it: what the library's kernels are held
// against. Shares no code with them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace support::reference {

// Bounds of one value; strict comparisons in double precision.
struct Bounds {
    double min = std::numeric_limits<double>::infinity();
    double max = -std::numeric_limits<double>::infinity();

    void fold(double value) {
        if (min > value) {
            min = value;
        }
        if (value > max) {
            max = value;
        }
    }
};

// Bounds of every attribute of decoded records.
struct Ranges {
    Bounds position[3];
    Bounds normal[3];
    Bounds colour[3];
    Bounds shcoef[3]; // red, green, blue
    Bounds opacity;
    Bounds scale[3];

    // A record of 62 floats or 17.
    void fold(const float* record, bool hasShcoef);
};

// The functions of the decoder.
float scale(float logScale);
float colour(float coefficient);
float opacity(float logit);
std::array<float, 4> rotation(float rot0, float rot1, float rot2, float rot3);

// Decode a record of 62 floats or 17 in place.
void decode(float* record, bool hasShcoef);

// Decode a block of records in place; its ranges. The visits run from 0 to the number of records, visit k
// folding record max(k - 1, 0).
Ranges decodeBlock(std::vector<float>& records, bool hasShcoef);

// The files' records of one decoded splat.
struct Quantised {
    std::array<std::uint8_t, 32> data;
    std::array<std::uint8_t, 64> packed{}; // zeros without coefficients, like raw
    std::array<std::uint8_t, 192> raw{};
};
Quantised quantise(const float* record, bool hasShcoef, const Ranges& ranges);

// The value truncated toward zero, low 32 bits; 0 where 64 bits do not hold it.
std::uint32_t truncated(double value);

struct Grid {
    float originX = 0.0f;
    float originY = 0.0f;
    float cellSizeX = 1.0f;
    float cellSizeY = 1.0f;
};
std::uint32_t cellKey(float x, float y, const Grid& grid);

} // namespace support::reference
