// Records of a dataset in the order in which its source brings their splats.
#pragma once

#include "reader/dataset.h"

#include <array>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

namespace Tavrin::SplatProgram {

// Reads the records of level 0 of all cells side by side, each cell from first to last. All windows together
// take at most 64 MiB, or one record a cell if that is more.
class CellReaders {
public:
    explicit CellReaders(const SplatReader::Dataset& dataset);

    // Number of the cell with this key, if the index has it.
    std::optional<std::size_t> find(std::uint32_t key);

    // The cell's next record; nothing after the last.
    std::optional<SplatReader::RecordCursor::View> next(std::size_t cell);

    // Records of the cell that next() has not returned.
    std::uint64_t unread(std::size_t cell) const;

private:
    struct Window {
        std::uint64_t next = 0; // record number in data.bin
        std::uint64_t end = 0;
        std::size_t at = 0; // record in the window
        std::size_t filled = 0;
        std::vector<std::byte> data;
        std::vector<std::byte> coefficients;
    };
    void fill(Window& window);

    std::uint32_t coefficientSize_;
    std::size_t windowRecords_;
    SplatReader::DatasetFile data_;
    std::optional<SplatReader::DatasetFile> coefficients_;
    std::unordered_map<std::uint32_t, std::size_t> cells_;
    // Cache of lookups by key. Most end here, since a scene has few cells.
    struct Remembered {
        std::uint32_t key = 0;
        std::size_t cellAndOne = 0; // 0: empty
    };
    std::array<Remembered, 1024> remembered_{};
    std::vector<Window> windows_;
};

} // namespace Tavrin::SplatProgram
