// A pass over datasets before they are drawn. It finds the area that each part of them covers.
#pragma once

#include "picture/crew.h"
#include "picture/pixel_grid.h"
#include "reader/dataset.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace Tavrin::SplatPicture {

// Consecutive splats of one cell.
struct Part {
    static constexpr std::uint32_t most = 16384; // splats

    std::uint32_t dataset = 0; // its number
    std::uint32_t count = 0;   // splats
    std::uint64_t first = 0;   // record of data.bin
    Box box;                   // as Survey::box; empty if nothing is drawn
};

struct Survey {
    // Opened by the caller. All have one reference system, whose unit is that of x, y and z. They must
    // outlive the survey.
    const std::vector<SplatReader::Dataset>* datasets = nullptr;
    std::vector<Part> parts;
    // The number of each dataset's first splat, so that all splats have different numbers.
    std::vector<std::uint64_t> firstNumbers;
    // The box of all splats that are opaque enough to be drawn, each up to where its opacity falls to
    // leastAlpha. In world coordinates (with offset), without the blurring, which depends on the pixels.
    Box box;
    std::uint64_t splats = 0; // of level 0, in all cells
    std::uint64_t cells = 0;
};

inline constexpr double surveyShare = 0.15; // share of the work of a picture, for progress

// Pixels by which the blurring may widen a footprint on each side.
double blurringMargin();

// Reads every position, scale, rotation and opacity once. Throws DatasetError when a file cannot be read, and
// whatever the crew's progress function throws.
Survey surveyOf(const std::vector<SplatReader::Dataset>& datasets, Crew& crew);

// Reads records of several datasets. Each thread needs one of its own.
class RecordFiles {
public:
    explicit RecordFiles(const std::vector<SplatReader::Dataset>& datasets) : datasets_(&datasets) {}

    // `count` records of data.bin; valid until the next call.
    const std::byte* data(std::uint32_t dataset, std::uint64_t first, std::uint32_t count);

    // The records of shcoef.bin with the same numbers, of the dataset of the last call of data().
    const std::byte* coefficients(std::uint64_t first, std::uint32_t count);

private:
    const std::vector<SplatReader::Dataset>* datasets_;
    std::uint32_t current_ = 0;
    std::unique_ptr<SplatReader::DatasetFile> dataFile_;
    std::unique_ptr<SplatReader::DatasetFile> coefficientFile_;
    std::vector<std::byte> dataBytes_;
    std::vector<std::byte> coefficientBytes_;
};

} // namespace Tavrin::SplatPicture
