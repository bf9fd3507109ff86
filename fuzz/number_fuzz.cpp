// Compares number reading on arbitrary text with strtof, strtol and strtoll in the C locale.

#include "fuzz/target.h"
#include "src/splatheader_numbers.h"

#include <bit>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <stdexcept>

namespace {

using namespace Tavrin::GaussionSplat;

std::string bitsOf(float value) {
    return std::isnan(value) ? std::signbit(value) ? "-nan" : "nan"
                             : std::to_string(std::bit_cast<std::uint32_t>(value));
}
std::string bitsOf(std::int32_t value) {
    return std::to_string(value);
}
std::string bitsOf(std::int64_t value) {
    return std::to_string(value);
}

// The value as text, or the class and the text of the error.
template <typename Number>
std::string outcome(Number (*parse)(std::string_view), const std::string& text) {
    try {
        return bitsOf(parse(text));
    } catch (const std::invalid_argument& error) {
        return std::string("invalid_argument: ") + error.what();
    } catch (const std::out_of_range& error) {
        return std::string("out_of_range: ") + error.what();
    }
}

std::string invalid(const std::string& function) {
    return "invalid_argument: invalid " + function + " argument";
}
std::string outOfRange(const std::string& function) {
    return "out_of_range: " + function + " argument out of range";
}

// A result that overflows or becomes 0 is out of range; a subnormal one is a number.
std::string expectedFloat(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const float value = std::strtof(text.c_str(), &end);
    if (end == text.c_str()) {
        return invalid("stof");
    }
    const bool vanished = value == 0.0f || std::isinf(value);
    return errno == ERANGE && vanished ? outOfRange("stof") : bitsOf(value);
}

template <typename Integer>
std::string expectedInteger(const std::string& text, const std::string& function) {
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (end == text.c_str()) {
        return invalid(function);
    }
    const bool fits =
        value >= std::numeric_limits<Integer>::min() && value <= std::numeric_limits<Integer>::max();
    return errno == ERANGE || !fits ? outOfRange(function) : bitsOf(static_cast<Integer>(value));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    fuzz::requireEqual(outcome(parseFloat, text), expectedFloat(text), "the float");
    fuzz::requireEqual(outcome(parseInt32, text), expectedInteger<std::int32_t>(text, "stoi"),
                       "the 32-bit integer");
    fuzz::requireEqual(outcome(parseInt64, text), expectedInteger<std::int64_t>(text, "stoll"),
                       "the 64-bit integer");
    return 0;
}
