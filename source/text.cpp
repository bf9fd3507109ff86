#include "source/text.h"

#include <algorithm>
#include <cstddef>

namespace Tavrin::SplatSource {

std::vector<std::string_view> wordsOf(std::string_view line) {
    constexpr std::string_view blanks = " \t\r";
    std::vector<std::string_view> words;
    for (std::size_t begin = line.find_first_not_of(blanks); begin != std::string_view::npos;) {
        const std::size_t end = std::min(line.find_first_of(blanks, begin), line.size());
        words.push_back(line.substr(begin, end - begin));
        begin = line.find_first_not_of(blanks, end);
    }
    return words;
}

std::string inQuotes(std::string_view text) {
    constexpr std::size_t longest = 40;
    std::string quote = "\"";
    for (const char c : text.substr(0, longest)) {
        const bool isControl = static_cast<unsigned char>(c) < 0x20 || c == '\x7f';
        quote += isControl ? '?' : c;
    }
    return quote + (text.size() > longest ? "...\"" : "\"");
}

std::string grouped(std::uint64_t count) {
    std::string digits = std::to_string(count);
    for (std::size_t at = digits.size(); at > 3;) {
        at -= 3;
        digits.insert(at, 1, ',');
    }
    return digits;
}

std::string countOf(std::uint64_t count, const char* singular, const char* plural) {
    return grouped(count) + ' ' + (count == 1 ? singular : plural);
}

} // namespace Tavrin::SplatSource
