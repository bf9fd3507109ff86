#include "src/splatheader_numbers.h"

#include <charconv>
#include <stdexcept>
#include <string>
#include <system_error>

namespace Tavrin::GaussionSplat {

namespace {

[[noreturn]] void throwInvalid(const char* function) {
    throw std::invalid_argument(std::string("invalid ") + function + " argument");
}

[[noreturn]] void throwOutOfRange(const char* function) {
    throw std::out_of_range(std::string(function) + " argument out of range");
}

void skipWhiteSpace(std::string_view& text) {
    const std::size_t first = text.find_first_not_of(" \t\n\v\f\r");
    text.remove_prefix(first == text.npos ? text.size() : first);
}

// If text starts with the sign character, skip it and return true.
bool takeSign(std::string_view& text, char sign) {
    if (text.empty() || text.front() != sign) {
        return false;
    }
    text.remove_prefix(1);
    return true;
}

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// If text starts with 0x and a hexadecimal digit, which may follow a point, skip the 0x and return true.
// Otherwise the 0 alone is the number.
bool takeHexPrefix(std::string_view& text) {
    if (text.size() < 3 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X')) {
        return false;
    }
    const bool digitFollows =
        isHexDigit(text[2]) || (text[2] == '.' && text.size() > 3 && isHexDigit(text[3]));
    if (digitFollows) {
        text.remove_prefix(2);
    }
    return digitFollows;
}

template <typename Integer>
Integer parseInteger(std::string_view text, const char* function) {
    skipWhiteSpace(text);
    // from_chars accepts a minus but no plus. Nothing may stand between a plus and the digits.
    if (takeSign(text, '+') && !text.empty() && text.front() == '-') {
        throwInvalid(function);
    }
    Integer value = 0;
    const std::from_chars_result result = std::from_chars(text.data(), text.data() + text.size(), value);
    if (result.ec == std::errc::invalid_argument) {
        throwInvalid(function);
    }
    if (result.ec == std::errc::result_out_of_range) {
        throwOutOfRange(function);
    }
    return value;
}

} // namespace

float parseFloat(std::string_view text) {
    constexpr const char* function = "stof";
    skipWhiteSpace(text);
    const bool negative = takeSign(text, '-');
    if (!negative) {
        takeSign(text, '+');
    }
    if (text.empty() || text.front() == '-') {
        throwInvalid(function);
    }
    const std::chars_format format =
        takeHexPrefix(text) ? std::chars_format::hex : std::chars_format::general;
    float value = 0.0f;
    const std::from_chars_result result =
        std::from_chars(text.data(), text.data() + text.size(), value, format);
    if (result.ec == std::errc::invalid_argument) {
        throwInvalid(function);
    }
    if (result.ec == std::errc::result_out_of_range) {
        throwOutOfRange(function);
    }
    return negative ? -value : value;
}

std::int32_t parseInt32(std::string_view text) {
    return parseInteger<std::int32_t>(text, "stoi");
}

std::int64_t parseInt64(std::string_view text) {
    return parseInteger<std::int64_t>(text, "stoll");
}

} // namespace Tavrin::GaussionSplat
