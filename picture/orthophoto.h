// Draws datasets from straight above, in bounded memory.
#pragma once

#include "picture/picture.h"
#include "picture/sink.h"
#include "picture/survey.h"

#include <cstdint>
#include <optional>

namespace Tavrin::SplatPicture {

struct Orthophoto {
    PixelGrid grid;
    std::optional<Colour> background; // without one the picture is transparent
    // Bytes for splats and the rows being drawn; too small a value is raised to the minimum. The picture
    // depends neither on it nor on the size of the crew.
    std::uint64_t memory = std::uint64_t{384} << 20;
};

// Writes the picture's rows to `sink` and leaves it open. True if any splat reaches into the picture. Throws
// DatasetError when a file cannot be read, PictureError when the sink cannot be written, and whatever the
// crew's progress function throws.
bool drawOrthophoto(const Survey& survey, const Orthophoto& picture, Crew& crew, Sink& sink);

} // namespace Tavrin::SplatPicture
