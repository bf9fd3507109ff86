#include "program/scene/crop_advice.h"

#include "source/bulk.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>

namespace Tavrin::SplatProgram {
namespace {

constexpr double farOff = 10.0; // as a multiple of the span of the bulk

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
    SplatSource::SampledAxes axes;
    addSample(scene.inputs().front()->input(), SplatSource::mostSampleRuns, std::nullopt, {}, axes);
    std::string mins;
    std::string maxs;
    bool isFarOff = false;
    for (std::size_t axis = 0; axis < axes.size(); ++axis) {
        if (axes[axis].empty()) {
            return {};
        }
        const double low = SplatSource::percentile(axes[axis], 0.01);
        const double high = SplatSource::percentile(axes[axis], 0.99);
        const double span = high - low;
        isFarOff = isFarOff || extent.max[axis] - extent.min[axis] > farOff * span;
        // The margin of one span on both sides keeps the whole bulk.
        mins += bound(low - span, span) + ",";
        maxs += (axis > 0 ? "," : "") + bound(high + span, span);
    }
    return isFarOff ? "--crop " + mins + maxs : std::string();
}

} // namespace Tavrin::SplatProgram
