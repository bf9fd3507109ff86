#include "program/terminal/figures.h"

#include <fmt/format.h>

#include <array>
#include <cctype>
#include <charconv>
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
    // With one decimal, a size that rounds to 1024.0 is written as 1.0 of the next unit.
    while (size >= step - 0.05 && unit + 1 < units.size()) {
        size /= step;
        ++unit;
    }
    return fmt::format("{:.1f} {}", size, units[unit]);
}

std::optional<std::uint64_t> bytesFrom(std::string_view text) {
    constexpr std::string_view units = "kmgtKMGT";
    constexpr double most = 18446744073709551616.0; // 2^64
    double number = 0.0;
    const auto [stop, error] =
        std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    std::string_view unit = text.substr(static_cast<std::size_t>(stop - text.data()));
    if (error != std::errc() || !std::isdigit(static_cast<unsigned char>(text.front()))) {
        return std::nullopt;
    }
    if (!unit.empty() && units.find(unit.front()) != units.npos) {
        const std::size_t power = units.find(unit.front()) % 4 + 1;
        number = std::ldexp(number, static_cast<int>(10 * power));
        unit.remove_prefix(1);
        const bool isSpeltOut = unit == "iB" || unit == "B" || unit == "ib" || unit == "b";
        unit.remove_prefix(isSpeltOut ? unit.size() : 0);
    }
    return unit.empty() && number >= 1.0 && number < most ? std::optional(static_cast<std::uint64_t>(number))
                                                          : std::nullopt;
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
