// A finished dataset folder, opened for reading.
#pragma once

#include "reader/dequantiser.h"
#include "reader/files.h"
#include "reader/grid.h"
#include "reader/meta.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <vector>

namespace Tavrin::SplatReader {

// The place of a cell's splats of one level.
struct LevelRange {
    std::uint32_t count = 0;  // splats
    std::uint64_t offset = 0; // of the first, in bytes of data.bin
    std::uint32_t size = 0;   // bytes in data.bin, as stated
};

// Reads records of data.bin in order, with their coefficients if the dataset has them, through one window for
// each file.
class RecordCursor {
public:
    struct View {
        std::uint64_t index;           // of the record in data.bin
        const std::byte* data;         // Format::recordSize bytes
        const std::byte* coefficients; // null without coefficients
    };

    // Records [first, first + count). `coefficientSize` is the size of a record of shcoef.bin; 0 leaves that
    // file out.
    RecordCursor(const std::filesystem::path& folder, std::uint64_t first, std::uint64_t count,
                 std::uint32_t coefficientSize, std::size_t window = windowSize);

    // Fills `view` and advances. False at the end of the range. The view is valid until the next call. Throws
    // DatasetError when a file is too short.
    bool next(View& view);

private:
    std::uint64_t next_;
    std::uint64_t end_;
    std::uint32_t coefficientSize_;
    std::unique_ptr<DatasetFile> dataFile_;
    std::unique_ptr<DatasetFile> coefficientFile_;
    std::unique_ptr<SequentialReader> data_;
    std::unique_ptr<SequentialReader> coefficients_;
};

class Dataset {
public:
    // Reads the meta document and the index. Throws DatasetError when the folder is not a dataset, when the
    // meta document cannot be used, or when the index points outside data.bin. verifyDataset finds all other
    // faults.
    static Dataset open(const std::filesystem::path& folder);

    const std::filesystem::path& folder() const { return folder_; }
    const Meta& meta() const { return meta_; }
    const Grid& grid() const { return grid_; }
    const Dequantiser& dequantiser() const { return dequantiser_; }

    std::size_t cellCount() const { return keys_.size(); }
    std::size_t levelCount() const { return static_cast<std::size_t>(meta_.totalLevel); }
    std::uint32_t cellKey(std::size_t cell) const { return keys_[cell]; }
    const LevelRange& range(std::size_t cell, std::size_t level) const {
        return ranges_[cell * levelCount() + level];
    }

    // The number of records in data.bin, by its size.
    std::uint64_t recordCount() const { return recordCount_; }
    // The number of records in the index, over all cells and levels.
    std::uint64_t indexedCount() const { return indexedCount_; }
    // The number of input records that the dataset does not hold because they lie outside the grid. 0 when
    // the index counts more than the input has.
    std::uint64_t leftOut() const {
        return meta_.totalSplats > indexedCount_ ? meta_.totalSplats - indexedCount_ : 0;
    }
    // Bytes of one record of shcoef.bin; 0 without coefficients.
    std::uint32_t coefficientSize() const;

    // Records [first, first + count) of data.bin. `window` bounds the memory of each of the two file windows.
    RecordCursor records(std::uint64_t first, std::uint64_t count, std::size_t window = windowSize) const;
    RecordCursor records(const LevelRange& range, std::size_t window = windowSize) const {
        return records(range.offset / Format::recordSize, range.count, window);
    }

private:
    Dataset(std::filesystem::path folder, Meta meta);
    void readIndex();

    std::filesystem::path folder_;
    Meta meta_;
    Grid grid_;
    Dequantiser dequantiser_;
    std::vector<std::uint32_t> keys_;
    std::vector<LevelRange> ranges_;
    std::uint64_t recordCount_ = 0;
    std::uint64_t indexedCount_ = 0;
};

// The meta document's text. Throws DatasetError when it is missing or longer than any real one.
std::string readMetaText(const std::filesystem::path& folder);

// One splat of a small dataset: as stored and as values.
struct LoadedSplat {
    std::uint32_t cellKey = 0;
    std::uint32_t level = 0;
    std::uint64_t index = 0; // record number in data.bin
    Record record;
    std::vector<std::byte> coefficientRecord; // as stored; empty without coefficients
    Splat splat;
};

// Every splat of the dataset in file order. Throws DatasetError above `limit` records.
std::vector<LoadedSplat> loadWhole(const Dataset& dataset, std::uint64_t limit = 10'000'000);

} // namespace Tavrin::SplatReader
