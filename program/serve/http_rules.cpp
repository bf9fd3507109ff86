#include "program/serve/http_rules.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <system_error>

namespace Tavrin::SplatProgram {
namespace {

std::string_view trimmed(std::string_view text) {
    const std::size_t begin = std::min(text.find_first_not_of(" \t"), text.size());
    text.remove_prefix(begin);
    return text.substr(0, text.find_last_not_of(" \t") + 1);
}

char lowered(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalIgnoringCase(std::string_view one, std::string_view other) {
    return std::ranges::equal(one, other, {}, lowered, lowered);
}

// Removes the text before the separator from `text` and returns it without surrounding blanks.
std::string_view takeBefore(std::string_view& text, char separator) {
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view word = trimmed(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    return word;
}

// A number of digits only. More than 64 bits count as the largest number, since no content is that long.
std::optional<std::uint64_t> parseNumber(std::string_view text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) {
        return std::nullopt;
    }
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() ? number : std::numeric_limits<std::uint64_t>::max();
}

RangeRequest part(std::uint64_t first, std::uint64_t count) {
    return {RangeRequest::Kind::part, {first, count}};
}

// True unless the weight of a coding is zero.
bool hasWeight(std::string_view parameters) {
    while (!parameters.empty()) {
        const std::string_view parameter = takeBefore(parameters, ';');
        if (parameter.size() > 2 && lowered(parameter[0]) == 'q' && parameter[1] == '=') {
            return parameter.substr(2).find_first_not_of("0.") != std::string_view::npos;
        }
    }
    return true;
}

} // namespace

RangeRequest parseRange(std::string_view field, std::uint64_t size) {
    constexpr RangeRequest whole = {};
    constexpr RangeRequest outside = {RangeRequest::Kind::outside, {}};
    if (field.find('=') == std::string_view::npos || !equalIgnoringCase(takeBefore(field, '='), "bytes")) {
        return whole;
    }
    field = trimmed(field);
    const std::size_t dash = field.find('-');
    if (dash == std::string_view::npos) {
        return whole;
    }
    const std::optional<std::uint64_t> first = parseNumber(field.substr(0, dash));
    const std::optional<std::uint64_t> last = parseNumber(field.substr(dash + 1));
    if (dash == 0 && last) { // the last bytes
        return *last == 0 || size == 0 ? outside : part(size - std::min(size, *last), std::min(size, *last));
    }
    const bool isOpen = dash + 1 == field.size();
    if (!first || (!last && !isOpen) || (last && *last < *first)) {
        return whole;
    }
    if (*first >= size) {
        return outside;
    }
    return part(*first, (last ? std::min(*last, size - 1) : size - 1) - *first + 1);
}

bool acceptsGzip(std::string_view field) {
    std::optional<bool> named;
    bool any = false;
    while (!field.empty()) {
        std::string_view parameters = takeBefore(field, ',');
        const std::string_view coding = takeBefore(parameters, ';');
        if (equalIgnoringCase(coding, "gzip") || equalIgnoringCase(coding, "x-gzip")) {
            named = hasWeight(parameters);
        } else if (coding == "*") {
            any = hasWeight(parameters);
        }
    }
    return named.value_or(any);
}

bool namesTag(std::string_view field, std::string_view tag, bool weak) {
    if (trimmed(field) == "*") {
        return true;
    }
    while (!field.empty()) {
        std::string_view word = takeBefore(field, ',');
        if (weak && word.starts_with("W/")) {
            word.remove_prefix(2);
        }
        if (word == tag) {
            return true;
        }
    }
    return false;
}

bool isOwnHost(std::string_view field, std::uint16_t port) {
    constexpr std::uint16_t httpPort = 80; // the default, which a Host field leaves out
    for (const char* const name : {"127.0.0.1", "localhost", "[::1]"}) {
        if (equalIgnoringCase(field, fmt::format("{}:{}", name, port)) ||
            (port == httpPort && equalIgnoringCase(field, name))) {
            return true;
        }
    }
    return false;
}

} // namespace Tavrin::SplatProgram
