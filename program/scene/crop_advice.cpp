#include "program/scene/crop_advice.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

constexpr std::uint64_t runRecords = 256; // consecutive in the file
constexpr std::uint64_t mostRuns = 256;
constexpr double farOff = 10.0; // as a multiple of the span of the bulk

// The finite coordinates of a sample, axis by axis.
std::array<std::vector<double>, 3> samplePositions(const SplatSource::Input& input) {
    std::array<std::vector<double>, 3> axes;
    const std::uint64_t runs = std::clamp<std::uint64_t>(input.count / runRecords, 1, mostRuns);
    std::vector<double> positions(3 * runRecords);
    for (std::uint64_t run = 0; run < runs; ++run) {
        const std::uint64_t first = input.count / runs * run;
        const std::uint64_t size = std::min(runRecords, input.count - first);
        input.readPositions(first, size, positions.data());
        for (std::uint64_t i = 0; i < 3 * size; ++i) {
            if (std::isfinite(positions[i])) {
                axes[i % 3].push_back(positions[i]);
            }
        }
    }
    return axes;
}

double percentile(std::vector<double>& values, double share) {
    const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return values[static_cast<std::size_t>(at)];
}

// Rounded to a power of ten below a hundredth of the span. So enough digits are kept far from 0, too.
std::string bound(double value, double span) {
    if (!(span > 0.0)) {
        return fmt::format("{}", value);
    }
    const int decimals = std::clamp(2 - static_cast<int>(std::floor(std::log10(span))), 0, 9);
    return fmt::format("{:.{}f}", value, decimals);
}

} // namespace

std::string cropAdvice(const SplatSource::Scene& scene, const Box& extent) {
    if (scene.inputs().size() > 1) {
        return {};
    }
    std::array<std::vector<double>, 3> axes = samplePositions(scene.inputs().front()->input());
    std::string mins;
    std::string maxs;
    bool isFarOff = false;
    for (std::size_t axis = 0; axis < axes.size(); ++axis) {
        if (axes[axis].empty()) {
            return {};
        }
        const double low = percentile(axes[axis], 0.01);
        const double high = percentile(axes[axis], 0.99);
        const double span = high - low;
        isFarOff = isFarOff || extent.max[axis] - extent.min[axis] > farOff * span;
        // The margin of one span on both sides keeps the whole bulk.
        mins += bound(low - span, span) + ",";
        maxs += (axis > 0 ? "," : "") + bound(high + span, span);
    }
    return isFarOff ? "--crop " + mins + maxs : std::string();
}

} // namespace Tavrin::SplatProgram
