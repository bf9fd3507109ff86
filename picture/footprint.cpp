#include "picture/footprint.h"

#include "reader/format.h"

#include <algorithm>
#include <cmath>

namespace Tavrin::SplatPicture {

double reachOf(double opacity) {
    return std::sqrt(2.0 * std::log(std::max(1.0, opacity / double{leastAlpha})));
}

std::array<double, 3> covariance(const SplatReader::Splat& splat, const View& view) {
    const auto& [w, x, y, z] = splat.rotation;
    const std::array<Point, 3> columns = {
        {{1.0 - 2.0 * (y * y + z * z), 2.0 * (x * y + w * z), 2.0 * (x * z - w * y)},
         {2.0 * (x * y - w * z), 1.0 - 2.0 * (x * x + z * z), 2.0 * (y * z + w * x)},
         {2.0 * (x * z + w * y), 2.0 * (y * z - w * x), 1.0 - 2.0 * (x * x + y * y)}}};
    double xx = 0.0;
    double xy = 0.0;
    double yy = 0.0;
    for (std::size_t i = 0; i < columns.size(); ++i) { // the half axes of the ellipsoid
        const Point& axis = columns[i];
        const double u =
            splat.scale[i] * (axis[0] * view.right[0] + axis[1] * view.right[1] + axis[2] * view.right[2]);
        const double v =
            splat.scale[i] * (axis[0] * view.down[0] + axis[1] * view.down[1] + axis[2] * view.down[2]);
        xx += u * u;
        xy += u * v;
        yy += v * v;
    }
    return {xx, xy, yy};
}

bool project(const SplatReader::Splat& splat, const View& view, Footprint& footprint) {
    if (!(splat.opacity >= double{leastAlpha})) {
        return false;
    }
    const auto [plainX, xy, plainY] = covariance(splat, view);
    const double xx = plainX + blurring;
    const double yy = plainY + blurring;
    // The variance inside a row is xx - xy^2 / yy. Cancellation may make it too small, so it is at least the
    // blurring.
    const double inside = std::max(blurring, xx - xy * (xy / yy));
    const double reach = reachOf(splat.opacity);
    footprint.depth = view.depth;
    footprint.x = view.x;
    footprint.y = view.y;
    footprint.slope = static_cast<float>(xy / yy);
    footprint.inverseX = static_cast<float>(1.0 / std::sqrt(inside));
    footprint.inverseY = static_cast<float>(1.0 / std::sqrt(yy));
    footprint.opacity = static_cast<float>(splat.opacity);
    footprint.reachX = static_cast<float>(reach * std::sqrt(xx));
    footprint.reachY = static_cast<float>(reach * std::sqrt(yy));
    return std::isfinite(view.x) && std::isfinite(view.y) && std::isfinite(view.depth) &&
           std::isfinite(footprint.slope) && std::isfinite(footprint.reachX) &&
           std::isfinite(footprint.reachY) && footprint.inverseX > 0.0f && footprint.inverseY > 0.0f;
}

Colour colourOf(const SplatReader::Splat& splat, const std::array<double, 15>& basis) {
    constexpr std::size_t perChannel = SplatReader::Format::coefficientsPerChannel;
    static_assert(perChannel == std::tuple_size_v<std::array<double, 15>>);
    Colour colour{};
    for (std::size_t channel = 0; channel < colour.size(); ++channel) {
        double value = splat.colour[channel];
        for (std::size_t k = 0; k < perChannel; ++k) {
            value += basis[k] * splat.coefficients[channel * perChannel + k];
        }
        colour[channel] = value > 0.0 ? static_cast<float>(value) : 0.0f; // also 0 for NaN
    }
    return colour;
}

} // namespace Tavrin::SplatPicture
