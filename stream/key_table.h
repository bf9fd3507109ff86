// A table of numbers by key: an open hash table of eight bytes an entry.
#pragma once

#include "src/kernels.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Tavrin::SplatStream {

// Prefetch distance, in keys. In a scene of many cells, the next key is likely to be a different one.
inline constexpr std::uint64_t keysAhead = 16;

class KeyTable {
public:
    static constexpr std::uint32_t none = UINT32_MAX;

    // Room for `keys` keys without growing.
    explicit KeyTable(std::uint64_t keys = 0) { resize(entriesFor(keys)); }

    // The number of a key, or none.
    std::uint32_t find(std::uint32_t key) const {
        for (std::size_t at = hashOf(key);; at = (at + 1) & mask_) {
            const Entry& entry = entries_[at];
            if (entry.number == none || entry.key == key) {
                return entry.number;
            }
        }
    }

    // Prefetches the cache line that find will read.
    void prefetch(std::uint32_t key) const { GaussionSplat::prefetch(&entries_[hashOf(key)]); }

    // Gives a new key a number. isFull must be false.
    void insert(std::uint32_t key, std::uint32_t number) {
        std::size_t at = hashOf(key);
        while (entries_[at].number != none) {
            at = (at + 1) & mask_;
        }
        entries_[at] = {key, number};
        ++used_;
    }

    // The next insert needs a larger table.
    bool isFull() const { return used_ * 2 >= entries_.size(); }
    void grow() {
        std::vector<Entry> old = std::move(entries_);
        resize(old.size() * 2);
        for (const Entry& entry : old) {
            if (entry.number != none) {
                insert(entry.key, entry.number);
            }
        }
    }

    static std::uint64_t bytesFor(std::uint64_t keys) { return entriesFor(keys) * sizeof(Entry); }
    std::uint64_t bytes() const { return entries_.size() * sizeof(Entry); }

private:
    struct Entry {
        std::uint32_t key = 0;
        std::uint32_t number = none; // an empty entry
    };

    std::vector<Entry> entries_; // a power of two
    std::size_t mask_ = 0;
    std::size_t used_ = 0;
    unsigned shift_ = 0;

    static std::uint64_t entriesFor(std::uint64_t keys) {
        constexpr std::uint64_t least = 256;
        return keys * 2 + 2 < least ? least : std::bit_ceil(keys * 2 + 2);
    }

    void resize(std::size_t entries) {
        entries_.assign(entries, {});
        mask_ = entries - 1;
        used_ = 0;
        shift_ = static_cast<unsigned>(64 - std::countr_zero(entries));
    }

    // The high bits of the key times the golden ratio.
    std::size_t hashOf(std::uint32_t key) const {
        return static_cast<std::size_t>(key * 0x9E3779B97F4A7C15u >> shift_);
    }
};

} // namespace Tavrin::SplatStream
