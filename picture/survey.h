// Datasets looked through before they are drawn: where each part of them lies.
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
    Box box;                   // see Survey::box; empty where nothing is drawn
};

struct Survey {
    // Opened by the caller, all in one reference system, whose units are those of x, y and z. It outlives the
    // survey.
    const std::vector<SplatReader::Dataset>* datasets = nullptr;
    std::vector<Part> parts;
    std::vector<std::uint64_t> firstNumbers; // of each dataset's splats, so that no two splats share a number
    // Of every splat that is opaque enough to be drawn, in world coordinates (offset included), until its
    // opacity has fallen to leastAlpha. Without the blurring, which depends on the pixels.
    Box box;
    std::uint64_t splats = 0; // in the cells, of the finest level
    std::uint64_t cells = 0;
};

inline constexpr double surveyShare = 0.15; // of the work of a picture, as progress counts it

// Pixels by which the blurring may widen a footprint on each side.
double blurringMargin();

// Reads every position, scale, rotation and opacity once. Throws DatasetError when a file cannot be read, and
// what the crew's progress function throws.
Survey surveyOf(const std::vector<SplatReader::Dataset>& datasets, Crew& crew);

// Reads records of one dataset after the other for one thread.
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
