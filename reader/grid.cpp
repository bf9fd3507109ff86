#include "reader/grid.h"

#include "reader/format.h"

#include <cmath>

namespace Tavrin::SplatReader {
namespace {

// Converts a double to a float; out-of-range values become infinite. C++ leaves these undefined for a plain
// cast.
float narrow(double value) {
    constexpr double largest = 3.4028235677973366e38; // half a step above the largest float
    if (std::isfinite(value) && std::fabs(value) >= largest) {
        return value > 0 ? HUGE_VALF : -HUGE_VALF;
    }
    return static_cast<float>(value);
}

// Truncates to 64 bits where they hold the value, else gives 0. Then keeps the low 32 bits.
std::uint32_t lowBits(float value) {
    if (!(value >= -9223372036854775808.0f && value < 9223372036854775808.0f)) {
        return 0;
    }
    return static_cast<std::uint32_t>(static_cast<std::int64_t>(value));
}

std::int64_t cellCount(double size, double extent) {
    const double count = std::trunc((size + extent) / size);
    return count >= 1.0 && count <= 2147483647.0 ? static_cast<std::int64_t>(count) : 0;
}

} // namespace

std::uint32_t Grid::keyAt(float x, float y) const {
    if (oneCell) {
        return 0;
    }
    const std::uint32_t column = lowBits(std::floor((x - originX) / cellSizeX));
    const std::uint32_t row = lowBits(std::floor((y - originY) / cellSizeY));
    return column | (row << 16);
}

Grid gridOf(const Meta& meta) {
    Grid grid;
    grid.oneCell = meta.oneCell();
    grid.originX = narrow(meta.boundingMin[0]);
    grid.originY = narrow(meta.boundingMin[1]);
    grid.cellSizeX = narrow(meta.cellLengthX);
    grid.cellSizeY = narrow(meta.cellLengthY);
    if (!grid.oneCell) {
        grid.countX = cellCount(meta.cellLengthX, meta.boundingMax[0] - meta.boundingMin[0]);
        grid.countY = cellCount(meta.cellLengthY, meta.boundingMax[1] - meta.boundingMin[1]);
    }
    return grid;
}

CellLengths expectedCellLengths(std::uint64_t splats, const Point& boundingMin, const Point& boundingMax) {
    const double extentX = boundingMax[0] - boundingMin[0];
    const double extentY = boundingMax[1] - boundingMin[1];
    if (splats < 1'000'000) {
        return {narrow(extentX), narrow(extentY)};
    }
    double size = 30.0;
    if (extentX < 100.0 && extentY < 100.0) {
        size = splats > 8'000'000 ? 10.0 : 30.0;
    } else if (splats > 100'000'000) {
        size = 10.0;
    } else if (splats > 8'000'000) {
        size = 15.0;
    }
    return {size, size};
}

} // namespace Tavrin::SplatReader
