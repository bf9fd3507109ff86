// Sorts the footprints in some rows of a picture and blends them, with all threads.
#pragma once

#include "picture/canvas.h"
#include "picture/crew.h"
#include "picture/footprint.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Tavrin::SplatPicture {

class Layer {
public:
    // Bytes of memory that each footprint costs while it is sorted.
    static constexpr std::size_t footprintBytes = sizeof(Footprint) + 32;

    // `pairs` bounds how many (footprint, strip) pairs are held at a time, in 4 bytes each.
    Layer(Canvas& canvas, std::size_t pairs);

    // Blends the first `count` footprints in the order of covers(); they may come in any order. No two may
    // have the same number and depth.
    void blend(const std::vector<Footprint>& footprints, std::size_t count, Crew& crew);

private:
    struct Key {
        double depth;
        std::uint32_t index;
    };
    struct Span {
        int first;
        int end;
    };

    Canvas& canvas_;
    std::size_t mostPairs_;
    std::vector<Key> keys_;
    std::vector<std::uint32_t> strips_; // indices of footprints, strip after strip
    std::vector<std::size_t> starts_;   // of each strip in strips_

    void sort(const std::vector<Footprint>& footprints, std::size_t count, Crew& crew);
    Span spanOf(const Footprint& footprint) const;
    // Adds the footprints of keys_[first] and those after it to the strips' lists, as many as fit. Returns
    // the end.
    std::size_t file(const std::vector<Footprint>& footprints, std::size_t first);
    void blendStrips(const std::vector<Footprint>& footprints, Crew& crew);
};

} // namespace Tavrin::SplatPicture
