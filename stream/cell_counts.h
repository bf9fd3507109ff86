// Counts splats by cell, in limited memory.
#pragma once

#include "stream/key_table.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <vector>

namespace Tavrin::SplatStream {

class CellCounts {
public:
    // Thrown when the next cell does not fit the limit.
    struct Full {};

    // Bytes that an object takes as long as it has few cells. peakBytes does not count them.
    static constexpr std::uint64_t leastBytes = 8192;

    // Peak bytes of counting `cells` cells in each of `tables` tables, joining these, and listing the cells
    // and the repeated ones (Measured::repeatedCells).
    static std::uint64_t peakBytes(std::uint64_t cells, std::uint64_t repeated, std::uint64_t tables) {
        return cells + repeated <= fewCells
                   ? 0
                   : std::max(tables * heldBytes(cells), heldBytes(cells) + listBytes(cells + repeated));
    }

    // From now on the object may use this many bytes in addition to leastBytes.
    void limit(std::uint64_t bytes) { limit_ = bytes; }

    // Counts one splat. Throws Full.
    void add(std::uint32_t key) { add(key, 1); }
    void add(std::uint32_t key, std::uint64_t splats) {
        const std::uint32_t number = numbers_.find(key);
        splats_[number != KeyTable::none ? number : insert(key)] += splats;
    }

    void prefetch(std::uint32_t key) const { numbers_.prefetch(key); }

    // Adds the counts of another object. Throws Full.
    void join(const CellCounts& other) {
        for (std::size_t i = 0; i < other.size(); ++i) {
            add(other.keys_[i], other.splats_[i]);
        }
    }

    void clear() {
        numbers_ = KeyTable();
        keys_ = {};
        splats_ = {};
    }

    // Bytes in use in addition to leastBytes.
    std::uint64_t bytes() const { return size() <= fewCells ? 0 : heldBytes(size()); }

    std::size_t size() const { return keys_.size(); }
    const std::vector<std::uint32_t>& keys() const { return keys_; }
    std::uint32_t numberOf(std::uint32_t key) const { return numbers_.find(key); }
    std::uint64_t splats(std::uint32_t number) const { return splats_[number]; }

private:
    static constexpr std::uint64_t fewCells = 128; // of an empty table

    KeyTable numbers_;
    std::vector<std::uint32_t> keys_; // by number
    std::vector<std::uint64_t> splats_;
    std::uint64_t limit_ = UINT64_MAX;

    // The table has two entries of 8 bytes a cell, the vectors have 12 bytes. Each of them exists twice for a
    // moment while it grows, once with half of its size.
    static std::uint64_t heldBytes(std::uint64_t cells) { return 32 * std::bit_ceil(cells); }

    // The keys and the steps of the grid walk, whose vector grows; later the result instead of the steps.
    static std::uint64_t listBytes(std::uint64_t cells) { return 22 * std::bit_ceil(cells); }

    std::uint32_t insert(std::uint32_t key) {
        if (numbers_.isFull()) {
            grow();
        }
        keys_.push_back(key);
        splats_.push_back(0);
        const auto number = static_cast<std::uint32_t>(keys_.size() - 1);
        numbers_.insert(key, number);
        return number;
    }

    // Doubles the table. Throws Full.
    void grow() {
        const std::uint64_t cells = keys_.size() * 2;
        if (heldBytes(cells) > limit_) {
            throw Full();
        }
        numbers_.grow();
        keys_.reserve(cells);
        splats_.reserve(cells);
    }
};

} // namespace Tavrin::SplatStream
