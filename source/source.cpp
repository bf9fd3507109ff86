#include "source/source.h"

namespace Tavrin::SplatSource {

void Source::readBoxPositions(std::uint64_t, std::uint64_t, float*) const {
    throw SourceError("this kind of scene has no positions of its own for the box: please report this");
}

} // namespace Tavrin::SplatSource
