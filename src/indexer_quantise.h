// Quantises one decoded splat into its output record.
#pragma once

#include "src/indexer_records.h"
#include "src/kernels.h"
#include "src/records.h"

#include <cstdint>

namespace Tavrin::GaussionSplat {

// The bounds of one value for quantisation.
struct QuantiseRange {
    double min = 0.0;
    double extent = 0.0; // max - min
};

// What quantisation needs to know about a scene.
struct QuantiseSettings {
    bool hasCoefficients = false;
    bool compressed = true;
    QuantiseRange scale[3];
    QuantiseRange normal[3];
    QuantiseRange coefficients[3]; // red, green, blue
};

QuantiseSettings quantiseSettings(const AttributeBounding& bounding, bool compressed);

// Fill record from a decoded splat of the form that settings.hasCoefficients states. This is the plain form
// of the work.
void quantiseSplat(const float* splat, const QuantiseSettings& settings, SplatsData& record);

// Gives the same bytes with vector instructions. Reciprocals replace divisions where that provably gives the
// same integers. The few splats where it might not go through quantiseSplat. One for each scene; immutable.
struct FastQuantiser {
    explicit FastQuantiser(const QuantiseSettings& settings, Kernels kernels = chosenKernels);

    void quantise(const float* splat, SplatsData& record) const;

    // Fraction bits of a coefficient in fixed point, before it is truncated to its steps.
    static constexpr int fractionBits = 10;

private:
    QuantiseSettings settings_;
    std::size_t scaleAt_;
    std::size_t opacityAt_;
    std::size_t rotationAt_;
    bool usable_; // the reciprocals are normal numbers, and the form of the records is one that is quantised
                  // fast
    bool usesAvx2_;
    // Normal, a gap that gives 0, scale, another gap.
    alignas(32) double wideMin_[8] = {};
    alignas(32) double wideFactor_[8] = {}; // 65535.5 over extent
    float coefficientMin_[3];
    float coefficientFactor_[3]; // steps over extent, in units of fixed point

    void setCoefficients();

    // Each returns false when a value of the record's first 32 bytes needs the plain form.
    bool quantiseNarrow(const float* splat, SplatsData& record) const;
    bool quantiseWide(const float* splat, SplatsData& record) const;

    void quantiseCoefficients(const float* coefficients, SplatsData& record) const;
    void quantiseCoefficientsWide(const float* coefficients, SplatsData& record) const;

    // Pack the words whose bits are set, in the plain form.
    void packPlainly(unsigned words, const float* coefficients, SplatsData& record) const;
};

// The pieces, each as a record holds it.
std::uint8_t quantiseColour(float value); // low 8 bits of trunc(value * 255)
std::uint16_t quantise16(float value,
                         const QuantiseRange& range);  // low 16 bits of trunc(normalised * 65535.5)
std::uint32_t packRotationWord(const float* rotation); // 10, 10, 10 and 2 bits
std::uint32_t packCoefficientWord(float red, float green, float blue,
                                  const QuantiseRange (&ranges)[3]); // 11, 10, 11 bits

} // namespace Tavrin::GaussionSplat
