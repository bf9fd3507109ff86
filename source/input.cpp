#include "source/input.h"

namespace Tavrin::SplatSource {

void Input::readPositions(std::uint64_t first, std::uint64_t size, double* positions) const {
    thread_local std::vector<float> records;
    records.resize(size * GaussionSplat::recordLayout(hasCoefficients).floats);
    readWide(first, size, records.data(), positions);
}

void copyPositions(const float* records, std::size_t floats, std::uint64_t size, double* positions) {
    for (std::uint64_t i = 0; positions != nullptr && i < size; ++i) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            positions[3 * i + axis] = records[i * floats + GaussionSplat::positionAt + axis];
        }
    }
}

} // namespace Tavrin::SplatSource
