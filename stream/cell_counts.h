// Counts splats by cell, in limited memory.
#pragma once

#include "stream/conversion.h"
#include "stream/key_table.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Tavrin::SplatStream {

class CellCounts {
public:
    // Bytes of an empty one.
    static constexpr std::uint64_t leastBytes = 4096;

    // Peak bytes for counting this many cells and listing them.
    static std::uint64_t peakBytes(std::uint64_t cells) {
        constexpr std::uint64_t listedBytes = 64; // of a cell: in the lists here, the walk's and the result's
        return KeyTable::bytesFor(cells) * 3 / 2 + cells * listedBytes;
    }

    // It may use this many bytes. `least` is what TooLittleMemory then names: memory that would do for the
    // whole conversion.
    void limit(std::uint64_t bytes, std::uint64_t least) {
        limit_ = bytes;
        least_ = least;
    }

    // Count one splat. Throws TooLittleMemory.
    void add(std::uint32_t key) { add(key, 1); }
    void add(std::uint32_t key, std::uint64_t splats) {
        const std::uint32_t number = numbers_.find(key);
        splats_[number != KeyTable::none ? number : insert(key)] += splats;
    }

    void prefetch(std::uint32_t key) const { numbers_.prefetch(key); }

    // Add the counts of another. Throws TooLittleMemory.
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

    std::size_t size() const { return keys_.size(); }
    const std::vector<std::uint32_t>& keys() const { return keys_; }
    std::uint32_t numberOf(std::uint32_t key) const { return numbers_.find(key); }
    std::uint64_t splats(std::uint32_t number) const { return splats_[number]; }

private:
    KeyTable numbers_;
    std::vector<std::uint32_t> keys_; // by number
    std::vector<std::uint64_t> splats_;
    std::uint64_t limit_ = UINT64_MAX;
    std::uint64_t least_ = 0;

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

    // Double the table. Throws TooLittleMemory.
    void grow() {
        const std::uint64_t cells = keys_.size() * 2;
        if (peakBytes(cells) > limit_) {
            throw TooLittleMemory("the scene falls into so many cells that counting them needs up to " +
                                      std::to_string(least_) + " bytes of memory",
                                  least_);
        }
        numbers_.grow();
        keys_.reserve(cells);
        splats_.reserve(cells);
    }
};

} // namespace Tavrin::SplatStream
