#include "picture/survey.h"

#include "picture/footprint.h"

#include <algorithm>
#include <cmath>

namespace Tavrin::SplatPicture {
namespace {

namespace Reader = SplatReader;

std::vector<Part> partsOf(const std::vector<Reader::Dataset>& datasets) {
    std::vector<Part> parts;
    for (std::uint32_t number = 0; number < datasets.size(); ++number) {
        const Reader::Dataset& dataset = datasets[number];
        for (std::size_t cell = 0; cell < dataset.cellCount(); ++cell) {
            const Reader::LevelRange& range = dataset.range(cell, 0);
            const std::uint64_t first = range.offset / Reader::Format::recordSize;
            for (std::uint32_t done = 0; done < range.count; done += Part::most) {
                Part part;
                part.dataset = number;
                part.count = std::min(Part::most, range.count - done);
                part.first = first + done;
                parts.push_back(part);
            }
        }
    }
    return parts;
}

// The rectangle that the splat covers, in world coordinates; empty if nothing is drawn.
Box extentOf(const Reader::Splat& splat, const Point& offset) {
    if (!(splat.opacity >= double{leastAlpha})) {
        return {};
    }
    View view;
    DownwardCamera(0.0, 0.0, 1.0).see({}, view);
    const auto [xx, xy, yy] = covariance(splat, view);
    const double reach = reachOf(splat.opacity);
    const double x = splat.position[0] + offset[0];
    const double y = splat.position[1] + offset[1];
    const double halfX = reach * std::sqrt(xx);
    const double halfY = reach * std::sqrt(yy);
    const Box box = {x - halfX, y - halfY, x + halfX, y + halfY};
    const bool isFinite = std::isfinite(box.minX) && std::isfinite(box.minY) && std::isfinite(box.maxX) &&
                          std::isfinite(box.maxY) && std::isfinite(splat.position[2]);
    return isFinite ? box : Box{};
}

} // namespace

double blurringMargin() {
    return reachOf(1.0) * std::sqrt(blurring);
}

Survey surveyOf(const std::vector<Reader::Dataset>& datasets, Crew& crew) {
    Survey survey;
    survey.datasets = &datasets;
    survey.parts = partsOf(datasets);
    std::uint64_t next = 0;
    for (const Reader::Dataset& dataset : datasets) {
        survey.firstNumbers.push_back(next);
        next += dataset.recordCount();
        survey.cells += dataset.cellCount();
    }
    std::vector<RecordFiles> files;
    for (unsigned worker = 0; worker < crew.size(); ++worker) {
        files.emplace_back(datasets);
    }
    crew.setShares(0.0, surveyShare);
    crew.run(survey.parts.size(), [&](unsigned worker, std::size_t item) {
        Part& part = survey.parts[item];
        const Reader::Dataset& dataset = datasets[part.dataset];
        const std::byte* data = files[worker].data(part.dataset, part.first, part.count);
        for (std::uint32_t i = 0; i < part.count; ++i, data += Reader::Format::recordSize) {
            part.box.widen(
                extentOf(dataset.dequantiser().splat(Reader::loadRecord(data)), dataset.meta().offset));
        }
    });
    for (const Part& part : survey.parts) {
        survey.box.widen(part.box);
        survey.splats += part.count;
    }
    return survey;
}

const std::byte* RecordFiles::data(std::uint32_t dataset, std::uint64_t first, std::uint32_t count) {
    if (!dataFile_ || current_ != dataset) {
        const Reader::Dataset& opened = (*datasets_)[dataset];
        dataFile_ = std::make_unique<Reader::DatasetFile>(opened.folder(), Reader::Format::dataFile);
        coefficientFile_ =
            opened.coefficientSize() == 0
                ? nullptr
                : std::make_unique<Reader::DatasetFile>(opened.folder(), Reader::Format::coefficientFile);
        current_ = dataset;
    }
    dataBytes_.resize(std::size_t{count} * Reader::Format::recordSize);
    dataFile_->read(first * Reader::Format::recordSize, dataBytes_.data(), dataBytes_.size());
    return dataBytes_.data();
}

const std::byte* RecordFiles::coefficients(std::uint64_t first, std::uint32_t count) {
    const std::uint32_t size = (*datasets_)[current_].coefficientSize();
    coefficientBytes_.resize(std::size_t{count} * size);
    coefficientFile_->read(first * size, coefficientBytes_.data(), coefficientBytes_.size());
    return coefficientBytes_.data();
}

} // namespace Tavrin::SplatPicture
