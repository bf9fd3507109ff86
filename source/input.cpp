#include "source/input.h"

namespace Tavrin::SplatSource {

void Input::readPositions(std::uint64_t first, std::uint64_t size, double* positions) const {
    thread_local std::vector<float> records;
    records.resize(size * GaussionSplat::recordLayout(hasCoefficients).floats);
    readWide(first, size, records.data(), positions);
}

} // namespace Tavrin::SplatSource
