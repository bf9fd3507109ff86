// Reads the records of all cells of a dataset side by side, so that they can be taken in the order of the
// source's splats.
#pragma once

#include "reader/dataset.h"

#include <array>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

namespace Tavrin::SplatProgram {

// Reads the records of level 0. Each cell is read from its first record to its last, independently of the
// others. All windows together take at most 64 MiB, or one record a cell if that is more.
class CellReaders {
public:
    explicit CellReaders(const SplatReader::Dataset& dataset);

    // The number of the cell with this key; nothing if the index does not have it.
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
    // A cache of look-ups by key. Most look-ups hit it, since a scene has few cells.
    struct Remembered {
        std::uint32_t key = 0;
        std::size_t cellAndOne = 0; // 0: empty
    };
    std::array<Remembered, 1024> remembered_{};
    std::vector<Window> windows_;
};

} // namespace Tavrin::SplatProgram
