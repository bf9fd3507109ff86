// A scene cut into windows.
#pragma once

#include <cstdint>

namespace Tavrin::SplatStream {

// Windows of one size, by number; the last may be smaller.
struct Windows {
    std::uint64_t records = 0;       // of the whole scene
    std::uint64_t windowRecords = 1; // of a window

    std::uint64_t count() const { return records / windowRecords + (records % windowRecords != 0 ? 1 : 0); }
    std::uint64_t first(std::uint64_t window) const { return window * windowRecords; }
    std::uint64_t size(std::uint64_t window) const {
        return records - first(window) < windowRecords ? records - first(window) : windowRecords;
    }
};

} // namespace Tavrin::SplatStream
