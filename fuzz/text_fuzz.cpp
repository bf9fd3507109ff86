// Compares the text functions of the meta document on arbitrary numbers with the C library's printf.

#include "fuzz/target.h"
#include "src/indexer_meta.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using namespace Tavrin::GaussionSplat;

std::string printed(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

void checkNumber(double value) {
    const std::string text = formatNumber(value);
    fuzz::requireEqual(text, printed(value), "the number");
    const double back = std::strtod(text.c_str(), nullptr);
    fuzz::require(std::isnan(value)
                      ? std::isnan(back)
                      : std::bit_cast<std::uint64_t>(back) == std::bit_cast<std::uint64_t>(value),
                  "17 digits give the number back: " + text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Source source(data, size);
    std::vector<double> values;
    std::string joined;
    while (!source.isEmpty()) {
        // Arbitrary doubles, and single-precision values as doubles, which the document mostly holds.
        const bool wide = source.takeBelow(2) == 0;
        const double value = wide ? source.take<double>() : double{source.take<float>()};
        checkNumber(value);
        joined += (values.empty() ? "" : ", ") + printed(value);
        values.push_back(value);
    }
    fuzz::requireEqual(formatArray(values), "[" + joined + "]", "the array");
    if (values.size() == 3) {
        fuzz::requireEqual(formatVector3(values[0], values[1], values[2]), "[" + joined + "]", "the vector");
    }
    const std::string text(reinterpret_cast<const char*>(data), size);
    fuzz::requireEqual(quoted(text), '"' + text + '"', "the quoted text");
    return 0;
}
