#include "program/tiles/overview.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <sstream>

namespace Tavrin::SplatProgram {

Rectangle Overview::box() const {
    Rectangle box = {transform[2], transform[5], transform[2], transform[5]};
    for (const double column : {0.0, static_cast<double>(columns)}) {
        for (const double row : {0.0, static_cast<double>(rows)}) {
            const double x = transform[0] * column + transform[1] * row + transform[2];
            const double y = transform[3] * column + transform[4] * row + transform[5];
            box = {std::min(box.minX, x), std::min(box.minY, y), std::max(box.maxX, x),
                   std::max(box.maxY, y)};
        }
    }
    return box;
}

std::optional<std::array<double, 6>> worldFileTransform(const std::string& text) {
    std::istringstream words(text);
    std::array<double, 6> numbers{};
    for (double& number : numbers) {
        std::string word;
        words >> word;
        const auto [stop, error] = std::from_chars(word.data(), word.data() + word.size(), number);
        if (error != std::errc() || stop != word.data() + word.size() || !std::isfinite(number)) {
            return std::nullopt;
        }
    }
    const auto [dxByColumn, dyByColumn, dxByRow, dyByRow, x, y] = numbers;
    // A world file states the centre of the first pixel.
    return std::array<double, 6>{dxByColumn, dxByRow, x - 0.5 * (dxByColumn + dxByRow),
                                 dyByColumn, dyByRow, y - 0.5 * (dyByColumn + dyByRow)};
}

} // namespace Tavrin::SplatProgram
