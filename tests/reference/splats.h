// The conversion of one splat, step by step after its formulas. The tests compare the library's kernels with
// it; they share no code.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace reference {

// Bounds of one value; strict comparisons in double precision.
struct Bounds {
    double min = std::numeric_limits<double>::infinity();
    double max = -std::numeric_limits<double>::infinity();

    void widen(double value) {
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
    Bounds coefficients[3]; // red, green, blue
    Bounds opacity;
    Bounds scale[3];

    // Widens the ranges by a decoded record of either form.
    void widen(const float* record, bool hasCoefficients);
};

// The functions of the decoder.
float scale(float logScale);
float colour(float coefficient);
float opacity(float logit);
std::array<float, 4> rotation(float rot0, float rot1, float rot2, float rot3);

// Decodes a record of either form in place.
void decode(float* record, bool hasCoefficients);

// Decodes a block of records in place and returns its ranges. Visits run from 0 to the number of records;
// visit k widens them by record max(k - 1, 0), so the first record counts twice.
Ranges decodeBlock(std::vector<float>& records, bool hasCoefficients);

// The bytes of one decoded splat in the files.
struct Quantised {
    std::array<std::uint8_t, 32> data;
    std::array<std::uint8_t, 64> packed{}; // zeros without coefficients, as is raw
    std::array<std::uint8_t, 192> raw{};
};
Quantised quantise(const float* record, bool hasCoefficients, const Ranges& ranges);

// The low 32 bits of the value truncated towards zero; 0 if it does not fit 64 bits.
std::uint32_t truncated(double value);

// The ground grid. `columns` and `rows` bound the walk over the cells; keys do not depend on them.
struct Grid {
    float originX = 0.0f;
    float originY = 0.0f;
    float cellSizeX = 1.0f;
    float cellSizeY = 1.0f;
    std::int32_t columns = 0;
    std::int32_t rows = 0;
};
std::uint32_t cellKey(float x, float y, const Grid& grid);

} // namespace reference
