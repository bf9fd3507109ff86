// Splats by cell, in memory that is limited.
#pragma once

#include "stream/conversion.h"
#include "stream/key_table.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Tavrin::SplatStream {

class CellCounts {
public:
    // Bytes that an empty one takes.
    static constexpr std::uint64_t leastBytes = 4096;

    // Bytes that counting so many cells, and listing them, takes at its peak.
    static std::uint64_t peakBytes(std::uint64_t cells) {
        constexpr std::uint64_t listedBytes = 64; // of a cell: in the lists here, the walk's and the result's
        return KeyTable::bytesFor(cells) * 3 / 2 + cells * listedBytes;
    }

    // It may take this many bytes; a whole conversion that fails for it would do with `least`.
    void limit(std::uint64_t bytes, std::uint64_t least) {
        m_limit = bytes;
        m_least = least;
    }

    // One splat more. Throws TooLittleMemory.
    void add(std::uint32_t key) { add(key, 1); }
    void add(std::uint32_t key, std::uint64_t splats) {
        const std::uint32_t number = m_numbers.find(key);
        m_splats[number != KeyTable::none ? number : insert(key)] += splats;
    }

    // Widen by the counts of others. Throws TooLittleMemory.
    void join(const CellCounts& other) {
        for (std::size_t i = 0; i < other.size(); ++i) {
            add(other.m_keys[i], other.m_splats[i]);
        }
    }

    void clear() {
        m_numbers = KeyTable();
        m_keys = {};
        m_splats = {};
    }

    std::size_t size() const { return m_keys.size(); }
    const std::vector<std::uint32_t>& keys() const { return m_keys; }
    std::uint32_t numberOf(std::uint32_t key) const { return m_numbers.find(key); }
    std::uint64_t splats(std::uint32_t number) const { return m_splats[number]; }

private:
    KeyTable m_numbers;
    std::vector<std::uint32_t> m_keys; // by number
    std::vector<std::uint64_t> m_splats;
    std::uint64_t m_limit = UINT64_MAX;
    std::uint64_t m_least = 0;

    std::uint32_t insert(std::uint32_t key) {
        if (m_numbers.isFull()) {
            grow();
        }
        m_keys.push_back(key);
        m_splats.push_back(0);
        const auto number = static_cast<std::uint32_t>(m_keys.size() - 1);
        m_numbers.insert(key, number);
        return number;
    }

    // Double the table. Throws TooLittleMemory.
    void grow() {
        const std::uint64_t cells = m_keys.size() * 2;
        if (peakBytes(cells) > m_limit) {
            throw TooLittleMemory("the scene falls into so many cells that counting them needs up to " +
                                      std::to_string(m_least) + " bytes of memory",
                                  m_least);
        }
        m_numbers.grow();
        m_keys.reserve(cells);
        m_splats.reserve(cells);
    }
};

} // namespace Tavrin::SplatStream
