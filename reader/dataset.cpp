#include "reader/dataset.h"

#include <algorithm>

namespace Tavrin::SplatReader {
namespace {

// Real documents have about 3 KiB, more if the header's comments are long.
constexpr std::uint64_t metaSizeLimit = std::uint64_t{16} << 20;

// An index of this size has 25 million cells; its table in memory is about as large.
constexpr std::uint64_t indexSizeLimit = std::uint64_t{512} << 20;

} // namespace

std::string readMetaText(const std::filesystem::path& folder) {
    DatasetFile file(folder, Format::metaFile);
    if (file.size() > metaSizeLimit) {
        throw DatasetError({file.name(), metaSizeLimit, "the end of the document",
                            std::to_string(file.size()) + " bytes in all", "meta-syntax"});
    }
    std::string text(static_cast<std::size_t>(file.size()), '\0');
    file.read(0, reinterpret_cast<std::byte*>(text.data()), text.size());
    return text;
}

RecordCursor::RecordCursor(const std::filesystem::path& folder, std::uint64_t first, std::uint64_t count,
                           std::uint32_t coefficientSize, std::size_t window)
    : next_(first), end_(first + count), coefficientSize_(coefficientSize),
      dataFile_(std::make_unique<DatasetFile>(folder, Format::dataFile)),
      data_(std::make_unique<SequentialReader>(*dataFile_, first * Format::recordSize,
                                               count * Format::recordSize,
                                               std::max<std::size_t>(window, Format::recordSize))) {
    if (coefficientSize_ > 0) {
        coefficientFile_ = std::make_unique<DatasetFile>(folder, Format::coefficientFile);
        coefficients_ = std::make_unique<SequentialReader>(*coefficientFile_, first * coefficientSize_,
                                                           count * coefficientSize_,
                                                           std::max<std::size_t>(window, coefficientSize_));
    }
}

bool RecordCursor::next(View& view) {
    if (next_ == end_) {
        return false;
    }
    view.index = next_++;
    view.data = data_->take(Format::recordSize);
    view.coefficients = coefficients_ ? coefficients_->take(coefficientSize_) : nullptr;
    return true;
}

Dataset::Dataset(std::filesystem::path folder, Meta meta)
    : folder_(std::move(folder)), meta_(std::move(meta)), grid_(gridOf(meta_)), dequantiser_(meta_) {}

Dataset Dataset::open(const std::filesystem::path& folder) {
    Findings findings(1);
    const std::string text = readMetaText(folder);
    std::optional<Meta> meta = parseMeta(text, findings);
    if (!meta) {
        throw DatasetError(findings.errors().front());
    }
    if (meta->totalLevel < 1) {
        throw DatasetError({std::string(Format::metaFile), 0, "at least 1 level",
                            std::to_string(meta->totalLevel), "meta-counts"});
    }
    Dataset dataset(folder, std::move(*meta));
    dataset.readIndex();
    return dataset;
}

std::uint32_t Dataset::coefficientSize() const {
    if (!meta_.hasCoefficients()) {
        return 0;
    }
    return meta_.packed() ? Format::packedCoefficientSize : Format::rawCoefficientSize;
}

void Dataset::readIndex() {
    const DatasetFile data(folder_, Format::dataFile);
    recordCount_ = data.size() / Format::recordSize;
    DatasetFile file(folder_, Format::indexFile);
    const std::uint64_t entrySize = Format::indexKeySize + std::uint64_t{Format::indexLevelSize} *
                                                               static_cast<std::uint64_t>(meta_.totalLevel);
    if (file.size() > indexSizeLimit) {
        throw DatasetError({file.name(), indexSizeLimit, "the end of the index",
                            std::to_string(file.size()) + " bytes in all", "index-size"});
    }
    const std::uint64_t entries = file.size() / entrySize;
    if (entries * entrySize != file.size()) {
        throw DatasetError({file.name(), entries * entrySize,
                            "entries of " + std::to_string(entrySize) + " bytes",
                            std::to_string(file.size() % entrySize) + " bytes left over", "index-size"});
    }
    SequentialReader reader(file, 0, file.size());
    for (std::uint64_t entry = 0; entry < entries; ++entry) {
        keys_.push_back(loadUnsigned<std::uint32_t>(reader.take(Format::indexKeySize)));
        for (std::size_t level = 0; level < levelCount(); ++level) {
            const std::uint64_t at = reader.offset();
            const std::byte* bytes = reader.take(Format::indexLevelSize);
            const LevelRange range{loadUnsigned<std::uint32_t>(bytes), loadUnsigned<std::uint64_t>(bytes + 4),
                                   loadUnsigned<std::uint32_t>(bytes + 12)};
            const std::uint64_t first = range.offset / Format::recordSize;
            if (range.count > 0 && (range.offset % Format::recordSize != 0 || first > recordCount_ ||
                                    range.count > recordCount_ - first)) {
                throw DatasetError(
                    {file.name(), at,
                     "a range inside the " + std::to_string(recordCount_) + " records of data.bin",
                     std::to_string(range.count) + " splats from byte " + std::to_string(range.offset),
                     "index-range"});
            }
            indexedCount_ += range.count;
            ranges_.push_back(range);
        }
    }
}

RecordCursor Dataset::records(std::uint64_t first, std::uint64_t count, std::size_t window) const {
    if (first > recordCount_ || count > recordCount_ - first) {
        throw DatasetError({std::string(Format::dataFile), recordCount_ * Format::recordSize,
                            std::to_string(count) + " records from record " + std::to_string(first),
                            "the end of the file", "file-short"});
    }
    return RecordCursor(folder_, first, count, coefficientSize(), window);
}

std::vector<LoadedSplat> loadWhole(const Dataset& dataset, std::uint64_t limit) {
    if (dataset.indexedCount() > limit) {
        throw DatasetError({std::string(Format::indexFile), 0, "at most " + std::to_string(limit) + " splats",
                            std::to_string(dataset.indexedCount()), "index-range"});
    }
    std::vector<LoadedSplat> splats;
    for (std::size_t cell = 0; cell < dataset.cellCount(); ++cell) {
        for (std::size_t level = 0; level < dataset.levelCount(); ++level) {
            RecordCursor cursor = dataset.records(dataset.range(cell, level));
            RecordCursor::View view{};
            while (cursor.next(view)) {
                LoadedSplat loaded;
                loaded.cellKey = dataset.cellKey(cell);
                loaded.level = static_cast<std::uint32_t>(level);
                loaded.index = view.index;
                loaded.record = loadRecord(view.data);
                loaded.splat = dataset.dequantiser().splat(loaded.record);
                if (view.coefficients != nullptr) {
                    loaded.coefficientRecord.assign(view.coefficients,
                                                    view.coefficients + dataset.coefficientSize());
                    dataset.dequantiser().coefficients(view.coefficients, loaded.splat);
                }
                splats.push_back(std::move(loaded));
            }
        }
    }
    return splats;
}

} // namespace Tavrin::SplatReader
