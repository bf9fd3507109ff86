#include "picture/canvas.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace Tavrin::SplatPicture {
namespace {

constexpr float darkest = 1e-4f; // below this light a pixel is finished

// exp(-s / 2) with a relative error of 3e-7, for s from 0 to 150. It has no branch, so that the loop over a
// row becomes vector code. 2^n comes from the exponent's bits, 2^f with |f| <= 1/2 from its series.
inline float falloff(float s) {
    constexpr float perHalf = -0.72134752f; // -log2(e) / 2
    const float power = s * perHalf;
    const auto whole = static_cast<std::int32_t>(power - 0.5f); // power is never positive
    const float f = power - static_cast<float>(whole);
    float value = 1.5403530e-4f;
    value = value * f + 1.3333558e-3f;
    value = value * f + 9.6181291e-3f;
    value = value * f + 5.5504109e-2f;
    value = value * f + 2.4022651e-1f;
    value = value * f + 6.9314718e-1f;
    value = value * f + 1.0f;
    return value * std::bit_cast<float>((whole + 127) << 23);
}

struct Row {
    float* light;
    float* red;
    float* green;
    float* blue;
};

// Blends columns [first, end) of a row. `offset` is the distance from the middle of the splat's part of the
// row to the middle of column 0; `peak` is the opacity at the middle.
void blendRow(const Row& row, int first, int end, float offset, float peak, const Footprint& splat,
              float mostAlpha) {
    const auto [red, green, blue] = splat.colour;
    for (int i = first; i < end; ++i) {
        const float u = (static_cast<float>(i) + offset) * splat.inverseX;
        float alpha = std::min(mostAlpha, peak * falloff(u * u));
        alpha = alpha < leastAlpha ? 0.0f : alpha;
        alpha = row.light[i] < darkest ? 0.0f : alpha;
        const float share = row.light[i] * alpha;
        row.red[i] += share * red;
        row.green[i] += share * green;
        row.blue[i] += share * blue;
        row.light[i] -= share;
    }
}

std::uint8_t byteOf(float value) {
    return static_cast<std::uint8_t>(std::lround(std::clamp(value, 0.0f, 1.0f) * 255.0f));
}

} // namespace

Canvas::Canvas(int width, int rows, float mostAlpha)
    : width_(width), rows_(rows), mostAlpha_(mostAlpha), strips_(static_cast<std::size_t>(stripCount())) {}

void Canvas::clear(int strip, int top) {
    const std::size_t plane = static_cast<std::size_t>(rows_) * stripWidth;
    Strip& one = strips_[static_cast<std::size_t>(strip)];
    one.top = top;
    one.planes.assign(4 * plane, 0.0f);
    std::fill_n(one.planes.begin(), plane, 1.0f);
}

void Canvas::blend(int strip, const Footprint& splat) {
    Strip& one = strips_[static_cast<std::size_t>(strip)];
    const std::size_t plane = static_cast<std::size_t>(rows_) * stripWidth;
    const double y = splat.y - one.top;
    const double x = splat.x - static_cast<double>(strip) * stripWidth;
    const double most = rows_;
    const auto firstRow = static_cast<int>(std::clamp(std::floor(y - splat.reachY), 0.0, most));
    const auto endRow = static_cast<int>(std::clamp(std::ceil(y + splat.reachY), 0.0, most));
    const float reach = splat.reachY * splat.inverseY; // in standard deviations
    for (int row = firstRow; row < endRow; ++row) {
        const double dy = row + 0.5 - y;
        const float v = static_cast<float>(dy) * splat.inverseY;
        const float left = reach * reach - v * v;
        if (left < 0.0f) {
            continue;
        }
        // One more pixel on both sides; the loop over pixels skips those that are too faint.
        const double middle = x + double{splat.slope} * dy;
        const double half = double{std::sqrt(left) / splat.inverseX} + 1.0;
        const auto first = static_cast<int>(std::clamp(middle - half, 0.0, double{stripWidth}));
        const auto end = static_cast<int>(std::clamp(middle + half, 0.0, double{stripWidth}));
        float* const light = one.planes.data() + static_cast<std::size_t>(row) * stripWidth;
        blendRow({light, light + plane, light + 2 * plane, light + 3 * plane}, first, end,
                 static_cast<float>(0.5 - middle), splat.opacity * falloff(v * v), splat, mostAlpha_);
    }
}

bool Canvas::isOpen(int strip) const {
    const Strip& one = strips_[static_cast<std::size_t>(strip)];
    const auto end = one.planes.begin() + static_cast<std::ptrdiff_t>(one.planes.size() / 4);
    return std::any_of(one.planes.begin(), end, [](float light) { return light >= darkest; });
}

void Canvas::store(int strip, int rows, const std::optional<Colour>& background,
                   std::uint8_t* picture) const {
    const std::size_t plane = static_cast<std::size_t>(rows_) * stripWidth;
    const float* const planes = strips_[static_cast<std::size_t>(strip)].planes.data();
    const int left = strip * stripWidth;
    const int columns = std::min(stripWidth, width_ - left);
    for (int row = 0; row < rows; ++row) {
        for (int column = 0; column < columns; ++column) {
            const std::size_t at = static_cast<std::size_t>(row) * stripWidth + column;
            const float light = planes[at];
            std::uint8_t* const pixel =
                picture + 4 * (static_cast<std::size_t>(row) * static_cast<std::size_t>(width_) +
                               static_cast<std::size_t>(left + column));
            pixel[3] = background ? 255 : byteOf(1.0f - light);
            for (std::size_t channel = 0; channel < 3; ++channel) {
                const float sum = planes[at + (channel + 1) * plane];
                const float value = background ? sum + light * (*background)[channel] : sum / (1.0f - light);
                pixel[channel] = pixel[3] == 0 ? 0 : byteOf(value);
            }
        }
    }
}

} // namespace Tavrin::SplatPicture
