#include "source/bulk.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace Tavrin::SplatSource {
namespace {

constexpr std::uint64_t runRecords = 256;

} // namespace

bool isHeldWithin(const double* position, const std::optional<Box>& crop) {
    constexpr double most = std::numeric_limits<float>::max();
    bool isInside = true;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        isInside = isInside && std::abs(position[axis]) <= most;
        if (crop) {
            isInside = isInside && position[axis] >= crop->min[axis] && position[axis] <= crop->max[axis];
        }
    }
    return isInside;
}

void addSample(const Input& input, std::uint64_t mostRuns, const std::optional<Box>& crop, const Point& move,
               SampledAxes& axes) {
    const std::uint64_t runs = std::clamp<std::uint64_t>(input.count / runRecords, 1, mostRuns);
    std::array<double, 3 * runRecords> positions;
    for (std::uint64_t run = 0; run < runs; ++run) {
        const std::uint64_t first = input.count / runs * run;
        const std::uint64_t size = std::min(runRecords, input.count - first);
        input.readPositions(first, size, positions.data());
        for (std::uint64_t i = 0; i < size; ++i) {
            const double* const position = positions.data() + 3 * i;
            for (std::size_t axis = 0; isHeldWithin(position, crop) && axis < 3; ++axis) {
                axes[axis].push_back(position[axis] + move[axis]);
            }
        }
    }
}

double percentile(std::vector<double>& values, double share) {
    const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return values[static_cast<std::size_t>(at)];
}

} // namespace Tavrin::SplatSource
