#include "program/terminal/figures.h"

#include <fmt/format.h>

#include <array>
#include <cmath>

namespace Tavrin::SplatProgram {

std::string countText(std::uint64_t count) {
    std::string digits = std::to_string(count);
    constexpr std::size_t group = 3;
    for (std::size_t at = digits.size(); at > group;) {
        at -= group;
        digits.insert(at, ",");
    }
    return digits;
}

std::string countText(std::uint64_t count, const char* singular, const char* plural) {
    return fmt::format("{} {}", countText(count), count == 1 ? singular : plural);
}

std::string bytesText(std::uint64_t bytes) {
    constexpr std::array<const char*, 6> units = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    constexpr double step = 1024.0;
    if (bytes < 1024) {
        return countText(bytes, "byte", "bytes");
    }
    double size = static_cast<double>(bytes) / step;
    std::size_t unit = 0;
    // One decimal is shown: what rounds up to 1024.0 is 1.0 of the next unit.
    while (size >= step - 0.05 && unit + 1 < units.size()) {
        size /= step;
        ++unit;
    }
    return fmt::format("{:.1f} {}", size, units[unit]);
}

std::string durationText(double seconds) {
    constexpr std::int64_t minute = 60;
    constexpr std::int64_t hour = 60 * minute;
    if (seconds < 9.95) {
        return fmt::format("{:.1f} s", seconds);
    }
    const auto whole = static_cast<std::int64_t>(std::llround(seconds));
    if (whole < minute) {
        return fmt::format("{} s", whole);
    }
    if (whole < hour) {
        return fmt::format("{}:{:02} min", whole / minute, whole % minute);
    }
    return fmt::format("{}:{:02} h", whole / hour, whole % hour / minute);
}

} // namespace Tavrin::SplatProgram
