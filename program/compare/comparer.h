// Compares one splat of a source with its record in a dataset.
#pragma once

#include "program/compare/comparison.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Tavrin::SplatProgram {

// Compares splats with their records, one by one, and collects differences and errors. Several comparers can
// work on one dataset at the same time, each on its own thread.
class Comparer {
public:
    // The dataset must outlive this object.
    Comparer(const SplatReader::Dataset& dataset, bool hasCoefficients);

    // `source` points to a vertex record of the canonical form. `number` is its number in the source, from 0.
    // `stored` is its record in the dataset.
    void compare(const std::byte* source, std::uint64_t number,
                 const SplatReader::RecordCursor::View& stored);

    // The differences so far.
    const SplatReader::Findings& findings() const { return findings_; }

    // The errors so far: one entry for each attribute, in the order of reports.
    std::vector<AttributeError> errors() const;

private:
    enum Attribute : std::size_t { normal, colour, opacity, scale, rotation, coefficients, attributeCount };
    static constexpr std::size_t coefficientCount = 3 * SplatReader::Format::coefficientsPerChannel;

    // Number of values compared in one vector loop. An unused lane always agrees.
    static constexpr std::size_t laneCount = 16;
    using Lanes = std::array<double, laneCount>;
    // The lanes of all attributes except position and coefficients. Opacity byte 0 has a step of its own and
    // so a lane of its own.
    enum HeadLane : std::size_t {
        normalLane = 0,
        colourLane = 3,
        scaleLane = 6,
        opacityLane = 9,
        noOpacityLane = 10,
        rotationLane = 11
    };
    // Sums and maxima of the distances between stored and source values, over the splats whose lanes all
    // agree.
    struct LaneErrors {
        Lanes squares{};
        Lanes largest{};

        void add(const Lanes& distances);
    };

    bool agreeHead(const float* source, const SplatReader::Record& record);
    void checkHead(const float* source, const SplatReader::Record& record);
    static void addLane(AttributeError& error, const LaneErrors& lanes, std::size_t lane, double step);
    void difference(Attribute attribute, const std::string& expected, const std::string& found);
    void check(Attribute attribute, double expected, double found, double step, std::uint32_t quantised);
    void checkRanged(Attribute attribute, bool isRangeFinite, double expected, double found, double step,
                     std::uint32_t quantised);
    void checkRotation(const std::array<float, 4>& q, std::uint32_t word, const SplatReader::Splat& splat);
    bool agreeCoefficients(const float* source, const std::byte* stored);
    void checkCoefficients(const float* source, const SplatReader::RecordCursor::View& stored);

    const SplatReader::Dequantiser& back_;
    const SplatReader::Meta& meta_;
    GaussionSplat::RecordLayout layout_; // of the source
    bool hasCoefficients_;
    bool areCoefficientsRanged_; // packed, every channel with a finite range
    bool isHeadRanged_ = true;   // normal and scale have finite ranges
    std::array<bool, 3> isNormalFinite_{};
    std::array<bool, 3> isScaleFinite_{};
    std::array<bool, 3> isCoefficientFinite_{};
    Lanes headStep_{};
    Lanes headSlack_{};                        // largest distance that agrees
    std::array<double, 3> coefficientSlack_{}; // the same
    SplatReader::Findings findings_;
    std::array<AttributeError, attributeCount> errors_;
    std::uint64_t agreeingHeads_ = 0;
    LaneErrors headErrors_;
    std::uint64_t agreeingCoefficients_ = 0;
    std::array<LaneErrors, 3> coefficientErrors_;
    std::uint64_t number_ = 0;
    std::uint64_t at_ = 0;
    std::string_view file_;
};

} // namespace Tavrin::SplatProgram
