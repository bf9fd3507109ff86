#pragma once

#include "comparison.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Tavrin::SplatProgram {

// Compares splats of a source with the records of the dataset that was made of it, one by one. Several of
// them can work on the same dataset at the same time.
class Comparer {
public:
    // The dataset must outlive this object.
    Comparer(const SplatReader::Dataset& dataset, const SplatLayout& layout);

    // `source` points to a record of the source, `number` is its place there; `stored` is the record of the
    // dataset that came of it.
    void compare(const std::byte* source, std::uint64_t number,
                 const SplatReader::RecordCursor::View& stored);

    // What differed so far.
    const SplatReader::Findings& findings() const { return m_findings; }

    // One entry an attribute, in the order of listing.
    std::vector<AttributeError> errors() const;

private:
    enum Attribute : std::size_t { normal, colour, opacity, scale, rotation, coefficients, attributeCount };
    static constexpr std::size_t coefficientCount = 3 * SplatReader::Format::coefficientsPerChannel;
    using Distances = std::array<double, coefficientCount>;

    void difference(Attribute attribute, const std::string& expected, const std::string& found);
    void check(Attribute attribute, double expected, double found, double step, std::uint32_t quantised);
    void checkRanged(Attribute attribute, bool isRangeFinite, double expected, double found, double step,
                     std::uint32_t quantised);
    void checkRotation(const std::array<float, 4>& q, std::uint32_t word, const SplatReader::Splat& splat);
    bool agree(const float* source, const std::byte* stored);
    void checkCoefficients(const float* source, const SplatReader::RecordCursor::View& stored,
                           SplatReader::Splat& splat);

    const SplatReader::Dequantiser& m_back;
    const SplatReader::Meta& m_meta;
    SplatLayout m_layout;
    bool m_hasCoefficients;
    bool m_areCoefficientsRanged; // packed, every channel with a finite range
    std::array<bool, 3> m_isNormalFinite{};
    std::array<bool, 3> m_isScaleFinite{};
    std::array<bool, 3> m_isCoefficientFinite{};
    std::array<double, 3> m_coefficientSlack{}; // farthest that a value may come back from its source
    SplatReader::Findings m_findings;
    std::array<AttributeError, attributeCount> m_errors;
    // Of the splats whose coefficients all agree; added up a coefficient apart, so that they can be added in
    // step.
    std::uint64_t m_agreeing = 0;
    Distances m_squares{};
    Distances m_largest{};
    std::uint64_t m_number = 0;
    std::uint64_t m_at = 0;
    std::string_view m_file;
};

} // namespace Tavrin::SplatProgram
