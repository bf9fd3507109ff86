// Some rows of a picture while splats are blended into them, from the one that covers all to the one that
// all cover.
#pragma once

#include "picture/footprint.h"
#include "picture/picture.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Tavrin::SplatPicture {

// The rows are cut into strips of stripWidth columns. Threads may work on different strips at once.
class Canvas {
public:
    static constexpr int stripWidth = 64;

    // A picture of `width` pixels, of which the canvas holds `rows` rows at a time: 16 bytes a pixel.
    // `mostAlpha` is the most that one splat covers of a pixel.
    Canvas(int width, int rows, float mostAlpha);

    int width() const { return width_; }
    int stripCount() const { return (width_ + stripWidth - 1) / stripWidth; }

    // Empties a strip. Its first row is row `top` of the picture from now on.
    void clear(int strip, int top);

    // Blends what lies in the strip. Splats come in the order of covers().
    void blend(int strip, const Footprint& splat);

    // Light still comes through some pixel of the strip. Once it is false, blending changes nothing.
    bool isOpen(int strip) const;

    // The pixels of `rows` rows: red, green, blue, alpha. Over a background they are opaque.
    void store(int strip, int rows, const std::optional<Colour>& background, std::uint8_t* picture) const;

private:
    struct Strip {
        int top = 0;
        std::vector<float> planes; // light, red, green, blue, each rows_ by stripWidth
    };

    int width_;
    int rows_;
    float mostAlpha_;
    std::vector<Strip> strips_;
};

} // namespace Tavrin::SplatPicture
