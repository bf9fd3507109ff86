// The destination of a picture, which receives it some rows at a time.
#pragma once

#include "picture/crew.h"

#include <cstdint>

namespace Tavrin::SplatPicture {

class Sink {
public:
    Sink() = default;
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;
    virtual ~Sink() = default;

    // Writes the next `rows` rows of the picture, four bytes a pixel as in a Picture. All calls but the last
    // have stripeRows rows. Throws PictureError when that fails.
    virtual void write(Crew& crew, const std::uint8_t* pixels, int rows) = 0;

    // To be called after the last row. Throws PictureError when the file is incomplete.
    virtual void close() = 0;
};

inline constexpr int stripeRows = 256;

} // namespace Tavrin::SplatPicture
