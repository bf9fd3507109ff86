// The rows of a picture that splats are blended into, from the nearest splat to the farthest.
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
    // `mostAlpha` is the largest opacity of one splat in a pixel.
    Canvas(int width, int rows, float mostAlpha);

    int width() const { return width_; }
    int stripCount() const { return (width_ + stripWidth - 1) / stripWidth; }

    // Clears a strip. From now on its first row is row `top` of the picture.
    void clear(int strip, int top);

    // Blends the part of the splat in the strip. Splats must come in the order of covers().
    void blend(int strip, const Footprint& splat);

    // True while some pixel of the strip still lets light through. Once false, blending changes nothing.
    bool isOpen(int strip) const;

    // Writes the strip's part of `rows` rows to `picture`: red, green, blue, alpha. With a background the
    // pixels are opaque.
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
