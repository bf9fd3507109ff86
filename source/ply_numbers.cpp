#include "source/ply_numbers.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

namespace Tavrin::SplatSource {
namespace {

// std::from_chars takes no plus.
std::string_view withoutPlus(std::string_view word) {
    const bool hasPlus = word.size() > 1 && word[0] == '+' && word[1] != '+' && word[1] != '-';
    return hasPlus ? word.substr(1) : word;
}

// The value of a decimal number outside the type's exponents. It is too small if it has a negative exponent
// or starts with a zero, else too large.
double unreachable(std::string_view word) {
    const bool isNegative = word.front() == '-';
    const std::string_view digits = word.substr(isNegative ? 1 : 0);
    const std::size_t exponent = digits.find_first_of("eE");
    const bool isSmall = exponent == std::string_view::npos ? digits.front() == '0' || digits.front() == '.'
                                                            : digits.substr(exponent + 1).starts_with('-');
    const double size = isSmall ? 0.0 : std::numeric_limits<double>::infinity();
    return isNegative ? -size : size;
}

template <typename Real>
bool parseReal(std::string_view word, Real& value) {
    word = withoutPlus(word);
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, value);
    if (stop != end || error == std::errc::invalid_argument) {
        return false;
    }
    if (error == std::errc::result_out_of_range) {
        value = static_cast<Real>(unreachable(word));
    }
    return true;
}

template <typename Integer>
bool parseInteger(std::string_view word, Integer& value) {
    word = withoutPlus(word);
    const char* const end = word.data() + word.size();
    const auto [stop, error] = std::from_chars(word.data(), end, value);
    if (error == std::errc() && stop == end) {
        return true;
    }
    // Some writers print whole numbers as reals: 255.0.
    double real = 0.0;
    if (!parseReal(word, real) || real != std::floor(real) ||
        real < static_cast<double>(std::numeric_limits<Integer>::min()) ||
        real > static_cast<double>(std::numeric_limits<Integer>::max())) {
        return false;
    }
    value = static_cast<Integer>(real);
    return true;
}

template <typename Integer>
bool storeInteger(std::string_view word, std::byte* at) {
    Integer value = 0;
    const bool isOne = parseInteger(word, value);
    std::memcpy(at, &value, sizeof value);
    return isOne;
}

template <typename Real>
bool storeReal(std::string_view word, std::byte* at) {
    Real value = 0;
    const bool isOne = parseReal(word, value);
    std::memcpy(at, &value, sizeof value);
    return isOne;
}

template <typename Integer>
bool countOfType(std::string_view word, std::uint64_t& count) {
    Integer value = 0;
    if (!parseInteger(word, value) || value < 0) {
        return false;
    }
    count = static_cast<std::make_unsigned_t<Integer>>(value);
    return true;
}

} // namespace

bool parseScalar(std::string_view word, Scalar type, std::byte* value) {
    switch (type) {
    case Scalar::int8:
        return storeInteger<std::int8_t>(word, value);
    case Scalar::uint8:
        return storeInteger<std::uint8_t>(word, value);
    case Scalar::int16:
        return storeInteger<std::int16_t>(word, value);
    case Scalar::uint16:
        return storeInteger<std::uint16_t>(word, value);
    case Scalar::int32:
        return storeInteger<std::int32_t>(word, value);
    case Scalar::uint32:
        return storeInteger<std::uint32_t>(word, value);
    case Scalar::float32:
        return storeReal<float>(word, value);
    case Scalar::float64:
        break;
    }
    return storeReal<double>(word, value);
}

bool parseListCount(std::string_view word, Scalar type, std::uint64_t& count) {
    switch (type) {
    case Scalar::int8:
        return countOfType<std::int8_t>(word, count);
    case Scalar::uint8:
        return countOfType<std::uint8_t>(word, count);
    case Scalar::int16:
        return countOfType<std::int16_t>(word, count);
    case Scalar::uint16:
        return countOfType<std::uint16_t>(word, count);
    case Scalar::int32:
        return countOfType<std::int32_t>(word, count);
    default:
        return countOfType<std::uint32_t>(word, count);
    }
}

} // namespace Tavrin::SplatSource
