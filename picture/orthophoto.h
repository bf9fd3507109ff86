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
    std::optional<Colour> background; // the picture is transparent without
    // Bytes for splats and the rows being drawn; less than the least that works counts as that. The picture
    // does not depend on it, nor on the size of the crew.
    std::uint64_t memory = std::uint64_t{384} << 20;
};

// Writes the picture's rows to `sink`, which is left open. Returns whether any splat reaches into the
// picture. Throws DatasetError when a file cannot be read, PictureError when the sink cannot be written, and
// what the crew's progress function throws.
bool drawOrthophoto(const Survey& survey, const Orthophoto& picture, Crew& crew, Sink& sink);

} // namespace Tavrin::SplatPicture
