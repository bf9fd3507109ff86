#include "src/splatheader_numbers.h"
#include "tests/support/floats.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <typeinfo>

namespace Tavrin::GaussionSplat {

namespace {

using support::Random;

// The result of reading a text: a value, or the class and the text of an error.
template <typename Number>
struct Reading {
    std::optional<Number> value;
    std::string error;
};

template <typename Number>
Reading<Number> read(Number (*parse)(std::string_view), std::string_view text) {
    try {
        return {parse(text), ""};
    } catch (const std::invalid_argument& error) {
        return {std::nullopt, std::string("invalid_argument: ") + error.what()};
    } catch (const std::out_of_range& error) {
        return {std::nullopt, std::string("out_of_range: ") + error.what()};
    }
}

const std::string stofInvalid = "invalid_argument: invalid stof argument";
const std::string stofRange = "out_of_range: stof argument out of range";

// strtof with the errors of the library's number reading. A text without a number at its start is invalid. A
// result that overflows, or that becomes 0 for a number other than 0, is out of range. A subnormal result is
// a number.
Reading<float> expectedFloat(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const float value = std::strtof(text.c_str(), &end);
    if (end == text.c_str()) {
        return {std::nullopt, stofInvalid};
    }
    if (errno == ERANGE && (value == 0.0f || std::isinf(value))) {
        return {std::nullopt, stofRange};
    }
    return {value, ""};
}

void expectFloat(const std::string& text) {
    const Reading<float> expected = expectedFloat(text);
    const Reading<float> actual = read(parseFloat, text);
    EXPECT_EQ(actual.error, expected.error) << '"' << text << '"';
    if (expected.value && actual.value) {
        EXPECT_TRUE(support::sameFloat(*actual.value, *expected.value))
            << '"' << text << "\" gives " << support::describe(*actual.value) << " instead of "
            << support::describe(*expected.value);
        EXPECT_EQ(std::signbit(*actual.value), std::signbit(*expected.value)) << text;
    }
}

TEST(ParseFloat, ReadsOrdinaryTexts) {
    struct Row {
        const char* text;
        float value;
    };
    const Row rows[] = {{"0", 0.0f},
                        {"5", 5.0f},
                        {"+5", 5.0f},
                        {"-5", -5.0f},
                        {"0.1", 0.1f},
                        {".5", 0.5f},
                        {"5.", 5.0f},
                        {"1e3", 1000.0f},
                        {"1E+3", 1000.0f},
                        {"12.5e-1", 1.25f},
                        {"007", 7.0f},
                        {"0x10", 16.0f},
                        {"0X1.8p1", 3.0f},
                        {"-0x.8", -0.5f},
                        {"16777217", 16777216.0f},
                        {"0.10000000149011612", 0.1f},
                        {"3.4028235e38", FLT_MAX},
                        {"1.17549435e-38", FLT_MIN},
                        {"1.4e-45", 1.4e-45f}};
    for (const Row& row : rows) {
        EXPECT_EQ(parseFloat(row.text), row.value) << row.text;
    }
    EXPECT_TRUE(std::signbit(parseFloat("-0")));
    EXPECT_FALSE(std::signbit(parseFloat("+0")));
}

TEST(ParseFloat, SkipsLeadingWhiteSpaceAndIgnoresTrailingText) {
    for (const char* text : {" 2.5", "\t2.5", "\v\f\r\n 2.5", "2.5 ", "2.5abc", "2.5e", "2.5e+", "2.5.5",
                             "2.5,7", "2.5-1", "2.5f"}) {
        EXPECT_EQ(parseFloat(text), 2.5f) << text;
        expectFloat(text);
    }
    EXPECT_EQ(parseFloat("0x"), 0.0f); // the 0 alone is the number
    EXPECT_EQ(parseFloat("0xg"), 0.0f);
    EXPECT_EQ(parseFloat("1,5"), 1.0f);
}

TEST(ParseFloat, ReadsInfinitiesAndNan) {
    constexpr float infinity = std::numeric_limits<float>::infinity();
    for (const char* text : {"inf", "INF", "+Inf", "infinity", "InFiNiTyx", "infinit"}) {
        EXPECT_EQ(parseFloat(text), infinity) << text;
    }
    EXPECT_EQ(parseFloat("-inf"), -infinity);
    EXPECT_EQ(parseFloat(" -INFINITY"), -infinity);
    for (const char* text :
         {"nan", "NaN", "-nan", "+nan", "nan()", "nan(12)", "nan(abc_1)", "nan(", "nan(x", "nanx"}) {
        EXPECT_TRUE(std::isnan(parseFloat(text))) << text;
    }
    EXPECT_TRUE(std::signbit(parseFloat("-nan")));
}

TEST(ParseFloat, RefusesWhatIsNoNumber) {
    for (const char* text :
         {"",    " ",   "\t\n", "abc", "+",  "-",  ".",   "+.",    "e5",       ".e1", "--1", "+-1", "-+1",
          "++1", "- 1", "+ 1",  "x10", "in", "na", "(5)", "\"5\"", "\xC3\xBC", "_1",  "#",   "'1"}) {
        EXPECT_EQ(read(parseFloat, text).error, stofInvalid) << '"' << text << '"';
    }
}

TEST(ParseFloat, ErrorsAreOfTheStandardClassesThemselves) {
    try {
        parseFloat("x");
        FAIL();
    } catch (const std::exception& error) {
        EXPECT_EQ(typeid(error), typeid(std::invalid_argument));
    }
    try {
        parseFloat("1e99");
        FAIL();
    } catch (const std::exception& error) {
        EXPECT_EQ(typeid(error), typeid(std::out_of_range));
    }
}

TEST(ParseFloat, TooLargeIsOutOfRange) {
    for (const char* text :
         {"3.4028236e38", "3.5e38", "-3.5e38", "1e39", "1e400", "-1e99999", "0x1p128", "0x1p99999",
          "0x1.ffffffp127", "1e99999999999999999999", "999999999999999999999999999999999999999"}) {
        EXPECT_EQ(read(parseFloat, text).error, stofRange) << text;
    }
    // A value that rounds down to the largest float is in range.
    EXPECT_EQ(parseFloat("3.4028235677973362e38"), FLT_MAX);
    EXPECT_EQ(parseFloat("0x1.fffffep127"), FLT_MAX);
    EXPECT_EQ(parseFloat("0x1.fffffeffp127"), FLT_MAX);
}

TEST(ParseFloat, TooSmallIsOutOfRangeAndASubnormalIsNot) {
    for (const char* text :
         {"1e-46", "-1e-46", "7e-46", "1e-400", "1e-99999", "0x1p-151", "0x1p-150", "0x1p-9999",
          "1e-99999999999999999999", "0.000000000000000000000000000000000000000000000001"}) {
        EXPECT_EQ(read(parseFloat, text).error, stofRange) << text;
    }
    EXPECT_EQ(parseFloat("1e-45"), 1.4e-45f);
    EXPECT_EQ(parseFloat("7.1e-46"), 1.4e-45f); // above half of the smallest
    EXPECT_EQ(parseFloat("1e-40"), 1e-40f);
    EXPECT_EQ(parseFloat("-1.1754942e-38"), -1.1754942e-38f);
    EXPECT_EQ(parseFloat("0x1p-149"), 1.4e-45f);
    EXPECT_EQ(parseFloat("0x1.8p-150"), 1.4e-45f);
    EXPECT_EQ(parseFloat("0x0.000002p-126"), 1.4e-45f);
    EXPECT_EQ(parseFloat("0e-99999"), 0.0f);
    EXPECT_EQ(parseFloat("0x0p-99999"), 0.0f);
    EXPECT_EQ(parseFloat("0.00e99999"), 0.0f);
}

TEST(ParseFloat, NullCharactersEndTheNumber) {
    EXPECT_EQ(parseFloat(std::string_view("1\0005", 3)), 1.0f);
    EXPECT_EQ(read(parseFloat, std::string_view("\0005", 2)).error, stofInvalid);
}

TEST(ParseFloat, AgreesWithTheCLibraryOnEveryKindOfPrintedFloat) {
    Random random(20);
    for (int i = 0; i < 40'000; ++i) {
        const double value = i % 2 == 0 ? double{support::anyFloat(random)} : support::anyDouble(random);
        for (const char* format : {"%.9g", "%.17g", "%.6e", "%a", "%.3a", "%A", "%.40g"}) {
            char text[512];
            std::snprintf(text, sizeof text, format, value);
            expectFloat(text);
        }
        if (HasFailure()) {
            return;
        }
    }
}

// Decimal texts exactly half-way between two floats, and just beside that point.
TEST(ParseFloat, RoundsToNearestEvenAtHalfway) {
    Random random(21);
    for (int i = 0; i < 20'000; ++i) {
        const float value = std::abs(support::anyFloat(random));
        const float next = std::nextafter(value, std::numeric_limits<float>::infinity());
        if (!std::isfinite(next)) {
            continue;
        }
        const double halfway = (double{value} + double{next}) / 2.0;
        for (const double text : {halfway, std::nextafter(halfway, 0.0),
                                  std::nextafter(halfway, std::numeric_limits<double>::infinity())}) {
            char digits[2048];
            std::snprintf(digits, sizeof digits, "%.160e", text);
            expectFloat(digits);
            std::snprintf(digits, sizeof digits, "%a", text);
            expectFloat(digits);
        }
        if (HasFailure()) {
            return;
        }
    }
}

// Random pieces of numbers in a row. Most are not a number, or a number followed by text.
std::string randomText(Random& random, const std::string& alphabet) {
    std::string text;
    for (std::uint64_t length = support::below(random, 12); text.size() < length;) {
        text += alphabet[support::below(random, alphabet.size())];
    }
    return text;
}

TEST(ParseFloat, AgreesWithTheCLibraryOnRandomTexts) {
    Random random(22);
    for (const char* alphabet : {"0123456789.eE+-", "01.ex+-p", " \t+-.15eEabfFpPxX", "infatyNAI()_1+- "}) {
        for (int i = 0; i < 60'000; ++i) {
            expectFloat(randomText(random, alphabet));
        }
    }
}

template <typename Integer>
Reading<Integer> expectedInteger(const std::string& text, const std::string& function) {
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (end == text.c_str()) {
        return {std::nullopt, "invalid_argument: invalid " + function + " argument"};
    }
    if (errno == ERANGE || value < std::numeric_limits<Integer>::min() ||
        value > std::numeric_limits<Integer>::max()) {
        return {std::nullopt, "out_of_range: " + function + " argument out of range"};
    }
    return {static_cast<Integer>(value), ""};
}

void expectIntegers(const std::string& text) {
    const Reading<std::int32_t> expected32 = expectedInteger<std::int32_t>(text, "stoi");
    const Reading<std::int32_t> actual32 = read(parseInt32, text);
    EXPECT_EQ(actual32.value, expected32.value) << '"' << text << '"';
    EXPECT_EQ(actual32.error, expected32.error) << '"' << text << '"';
    const Reading<std::int64_t> expected64 = expectedInteger<std::int64_t>(text, "stoll");
    const Reading<std::int64_t> actual64 = read(parseInt64, text);
    EXPECT_EQ(actual64.value, expected64.value) << '"' << text << '"';
    EXPECT_EQ(actual64.error, expected64.error) << '"' << text << '"';
}

TEST(ParseInteger, ReadsBaseTen) {
    EXPECT_EQ(parseInt32("4326"), 4326);
    EXPECT_EQ(parseInt32("-1"), -1);
    EXPECT_EQ(parseInt32("+0010"), 10); // a leading zero does not mean octal
    EXPECT_EQ(parseInt32("0x10"), 0);   // nor 0x hexadecimal
    EXPECT_EQ(parseInt32(" \t\n\v\f\r7"), 7);
    EXPECT_EQ(parseInt32("12abc"), 12);
    EXPECT_EQ(parseInt32("12.9"), 12);
    EXPECT_EQ(parseInt64("9000000000"), 9'000'000'000);
}

TEST(ParseInteger, KnowsItsLimits) {
    EXPECT_EQ(parseInt32("2147483647"), 2147483647);
    EXPECT_EQ(parseInt32("-2147483648"), std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(parseInt64("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(parseInt64("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(read(parseInt32, "2147483648").error, "out_of_range: stoi argument out of range");
    EXPECT_EQ(read(parseInt32, "-2147483649").error, "out_of_range: stoi argument out of range");
    EXPECT_EQ(read(parseInt64, "9223372036854775808").error, "out_of_range: stoll argument out of range");
    EXPECT_EQ(read(parseInt64, "-99999999999999999999").error, "out_of_range: stoll argument out of range");
}

TEST(ParseInteger, RefusesWhatIsNoNumber) {
    for (const char* text : {"", " ", "abc", "+", "-", "+-1", "-+1", "--1", "- 1", "+ 1", ".5", "x1", "e1"}) {
        EXPECT_EQ(read(parseInt32, text).error, "invalid_argument: invalid stoi argument")
            << '"' << text << '"';
        EXPECT_EQ(read(parseInt64, text).error, "invalid_argument: invalid stoll argument")
            << '"' << text << '"';
    }
}

TEST(ParseInteger, AgreesWithTheCLibraryOnRandomTexts) {
    Random random(23);
    for (const char* alphabet : {"0123456789", "0123456789+- ", "09+-ax.\t"}) {
        for (int i = 0; i < 30'000; ++i) {
            expectIntegers(randomText(random, alphabet));
        }
    }
    for (int i = 0; i < 20'000; ++i) {
        const auto bits = static_cast<std::int64_t>(random.next());
        expectIntegers(std::to_string(bits >> support::below(random, 64)));
        expectIntegers(std::to_string(bits) + std::to_string(support::below(random, 100)));
    }
}

} // namespace

} // namespace Tavrin::GaussionSplat
