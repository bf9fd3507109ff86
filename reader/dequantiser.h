// Turns stored records back into values. docs/format.md states every formula.
#pragma once

#include "reader/meta.h"
#include "reader/record.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Tavrin::SplatReader {

// One splat in the units of the dataset: colour and opacity in [0, 1], scale linear, rotation a unit
// quaternion.
struct Splat {
    std::array<float, 3> position{}; // exact
    Point normal{};
    Point colour{};
    double opacity = 0.0;
    Point scale{};
    std::array<double, 4>
        rotation{}; // w, x, y, z: the order of rot_0 .. rot_3; the largest of them is positive
    // In the order of f_rest_0 .. f_rest_44: 15 red, 15 green, 15 blue. Zeros without coefficients.
    std::array<double, 45> coefficients{};
};

// Truncating t * factor, with t in [0, 1], gives integers 0 .. maximum. This returns the middle of the
// interval of t that gives `quantised`. The last interval ends at 1.
double intervalMiddle(std::uint32_t quantised, std::uint32_t maximum, double factor);

// A unit quaternion (w, x, y, z) from its packed word. A word that no unit quaternion packs to gives (1, 0,
// 0, 0). The converter writes such a word, 0, for a rotation that is not a number.
std::array<double, 4> unpackRotation(std::uint32_t word);

// True if some unit quaternion packs to this word.
bool rotationPossible(std::uint32_t word);

// Built from a meta document's ranges. Each value is the middle of the interval that truncation maps to the
// stored integer, clamped to the stated range. A range with min == max gives that value. A range that is not
// finite gives its finite end, or 0.
class Dequantiser {
public:
    explicit Dequantiser(const Meta& meta);

    double normal(std::size_t axis, std::uint32_t quantised) const { return normal_[axis].value(quantised); }
    double scale(std::size_t axis, std::uint32_t quantised) const { return scale_[axis].value(quantised); }
    // Channel 0 red, 1 green, 2 blue.
    double coefficient(std::size_t channel, std::uint32_t quantised) const {
        return coefficient_[channel].value(quantised);
    }
    double colour(std::size_t axis, std::uint8_t quantised) const { return colour_[axis][quantised]; }
    // 255 is 1; 0 is 0 when the stated range starts at 0.
    double opacity(std::uint8_t quantised) const { return opacity_[quantised]; }

    // The width of one quantiser step in the attribute's own units.
    double normalStep(std::size_t axis) const { return normal_[axis].step; }
    double scaleStep(std::size_t axis) const { return scale_[axis].step; }
    double coefficientStep(std::size_t channel) const { return coefficient_[channel].step; }
    static double colourStep() { return 1.0 / Format::byteFactor; }
    static double opacityStep() { return 1.0 / Format::byteFactor; }
    static double rotationStep() { return 1.0 / (Format::rotationFactor * Format::rotationGain); }

    // Everything except the coefficients.
    Splat splat(const Record& record) const;
    // Coefficient k, 0 to 14, of each channel. `at` points to one record of shcoef.bin, in the form that the
    // meta document states.
    Point coefficient(const std::byte* at, std::size_t k) const;
    // All coefficients of a record.
    void coefficients(const std::byte* at, Splat& splat) const;

private:
    struct Axis {
        double min = 0.0;
        double step = 0.0; // 0 if every quantised value means `min`
        double last = 0.0; // the value at `maximum`
        double maximum = 0.0;

        // Double precision throughout, so that loops over it become vector code. Quantised values have 16
        // bits at most and convert faster as signed numbers.
        double value(std::uint32_t quantised) const {
            const double q = static_cast<std::int32_t>(quantised);
            const double middle = min + (q + 0.5) * step;
            return q >= maximum ? last : middle;
        }
    };
    static Axis makeAxis(const Range& range, std::size_t axis, std::uint32_t maximum, double factor);
    static std::array<double, 256> makeBytes(const Range& range, std::size_t axis, bool keepZero);

    bool packed_;
    std::array<Axis, 3> normal_;
    std::array<Axis, 3> scale_;
    std::array<Axis, 3> coefficient_;
    std::array<std::array<double, 256>, 3> colour_;
    std::array<double, 256> opacity_;
};

} // namespace Tavrin::SplatReader
