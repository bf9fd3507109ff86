#include "source/ply_header.h"

#include "source/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <set>
#include <utility>

namespace Tavrin::SplatSource {
namespace {

constexpr std::array<std::pair<std::string_view, Scalar>, 16> scalarNames = {{
    {"char", Scalar::int8},
    {"int8", Scalar::int8},
    {"uchar", Scalar::uint8},
    {"uint8", Scalar::uint8},
    {"short", Scalar::int16},
    {"int16", Scalar::int16},
    {"ushort", Scalar::uint16},
    {"uint16", Scalar::uint16},
    {"int", Scalar::int32},
    {"int32", Scalar::int32},
    {"uint", Scalar::uint32},
    {"uint32", Scalar::uint32},
    {"float", Scalar::float32},
    {"float32", Scalar::float32},
    {"double", Scalar::float64},
    {"float64", Scalar::float64},
}};

constexpr std::array<std::pair<std::string_view, PlyFormat>, 3> formatNames = {{
    {"ascii", PlyFormat::ascii},
    {"binary_little_endian", PlyFormat::binaryLittleEndian},
    {"binary_big_endian", PlyFormat::binaryBigEndian},
}};

// Cuts the start of a file into lines.
class LineCutter {
public:
    explicit LineCutter(std::string_view start) : start_(start) {
        const std::size_t end = start.find_first_of("\r\n");
        endsInCarriageReturn_ =
            end != std::string_view::npos && start[end] == '\r' && start.substr(end + 1, 1) != "\n";
    }

    // The next line. Nothing when no whole line is left.
    std::optional<std::string_view> next() {
        const char* const lineEnds = endsInCarriageReturn_ ? "\r\n" : "\n";
        const std::size_t end = start_.find_first_of(lineEnds, at_);
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        std::string_view line = start_.substr(at_, end - at_);
        at_ = end + 1;
        if (endsInCarriageReturn_) {
            // A line feed may follow in a header of mixed line ends. After end_header it belongs to the body.
            const bool isLast = wordsOf(line) == std::vector<std::string_view>{"end_header"};
            at_ += !isLast && start_[end] == '\r' && start_.substr(at_, 1) == "\n" ? 1 : 0;
        } else if (line.ends_with('\r')) {
            line.remove_suffix(1);
        }
        return line;
    }

    std::size_t position() const { return at_; }

private:
    std::string_view start_;
    std::size_t at_ = 0;
    bool endsInCarriageReturn_ = false; // without a line feed, on every line
};

// Builds the header line by line; every failure names file and line.
class HeaderParser {
public:
    explicit HeaderParser(const std::string& name) : name_(name) {}

    // True when this is the last line of the header.
    bool take(std::string_view line) {
        header_.lines.emplace_back(line);
        if (header_.lines.size() == 1) {
            return false; // "ply", which the caller has checked
        }
        const std::vector<std::string_view> words = wordsOf(line);
        if (words.empty() || words[0] == "comment" || words[0] == "obj_info") {
            return false;
        }
        if (words[0] == "end_header") {
            if (words.size() > 1) {
                fail("the end_header line holds more than that word: remove the rest of the line");
            }
            return true;
        }
        takeKeyword(line, words);
        return false;
    }

    PlyHeader finish(std::uint64_t length) {
        if (header_.formatText.empty()) {
            fail("the header has no format line: write the file again with one");
        }
        header_.length = length;
        return std::move(header_);
    }

private:
    [[noreturn]] void fail(const std::string& what) const {
        throw SourceError(fmt::format("{}:{}: {}", name_, header_.lines.size(), what));
    }

    void takeKeyword(std::string_view line, const std::vector<std::string_view>& words) {
        if (words[0] == "format") {
            takeFormat(words);
        } else if (words[0] == "element") {
            takeElement(words);
        } else if (words[0] == "property") {
            takeProperty(words);
        } else {
            fail(fmt::format("not a PLY header line: {}", inQuotes(line)));
        }
    }

    void takeFormat(const std::vector<std::string_view>& words) {
        if (!header_.formatText.empty()) {
            fail("a second format line: remove it");
        }
        if (!header_.elements.empty()) {
            fail("the format line comes after an element: move it to the second line");
        }
        const auto isNamed = [&](const auto& entry) { return words.size() == 3 && entry.first == words[1]; };
        const auto format = std::ranges::find_if(formatNames, isNamed);
        if (format == formatNames.end() || words[2] != "1.0") {
            fail("the format line is not \"format FORMAT 1.0\" with ascii, binary_little_endian or "
                 "binary_big_endian");
        }
        header_.format = format->second;
        header_.formatText = format->first;
        header_.formatLine = header_.lines.size();
    }

    void takeElement(const std::vector<std::string_view>& words) {
        if (words.size() != 3) {
            fail("an element line is not \"element NAME COUNT\"");
        }
        PlyElement element;
        element.name = words[1];
        element.line = header_.lines.size();
        const char* const end = words[2].data() + words[2].size();
        const auto [stop, error] = std::from_chars(words[2].data(), end, element.count);
        // Readers hold counts in signed 64-bit integers.
        if (error == std::errc::result_out_of_range || element.count > INT64_MAX) {
            fail(fmt::format("the count {} of element {} is too large for any file", inQuotes(words[2]),
                             inQuotes(words[1])));
        }
        if (error != std::errc() || stop != end) {
            fail(fmt::format("the count {} of element {} is not a whole number", inQuotes(words[2]),
                             inQuotes(words[1])));
        }
        if (!elementNames_.insert(element.name).second) {
            fail(fmt::format("a second element {}: each may come once", inQuotes(words[1])));
        }
        header_.elements.push_back(std::move(element));
        propertyNames_.clear();
    }

    Scalar scalarOf(std::string_view word) const {
        const auto isNamed = [&](const auto& entry) { return entry.first == word; };
        const auto scalar = std::ranges::find_if(scalarNames, isNamed);
        if (scalar == scalarNames.end()) {
            fail(fmt::format(
                "{} is not a type of PLY: expected char, uchar, short, ushort, int, uint, float or "
                "double",
                inQuotes(word)));
        }
        return scalar->second;
    }

    void takeProperty(const std::vector<std::string_view>& words) {
        if (header_.elements.empty()) {
            fail("a property line before the first element line");
        }
        const bool isList = words.size() > 1 && words[1] == "list";
        if (words.size() != (isList ? 5u : 3u)) {
            fail("a property line is neither \"property TYPE NAME\" nor \"property list TYPE TYPE NAME\"");
        }
        PlyProperty property;
        property.name = words.back();
        property.typeText = words[words.size() - 2];
        property.type = scalarOf(property.typeText);
        property.line = header_.lines.size();
        if (isList) {
            property.countType = scalarOf(words[2]);
            property.countTypeText = words[2];
            if (*property.countType == Scalar::float32 || *property.countType == Scalar::float64) {
                fail(fmt::format("the count of the list {} is a {}: expected a whole-number type",
                                 inQuotes(property.name), words[2]));
            }
        }
        if (!propertyNames_.insert(property.name).second) {
            fail(fmt::format("a second property {} of element {}: each may come once",
                             inQuotes(property.name), inQuotes(header_.elements.back().name)));
        }
        header_.elements.back().properties.push_back(std::move(property));
    }

    const std::string& name_;
    PlyHeader header_;
    std::set<std::string> elementNames_;
    std::set<std::string> propertyNames_; // of the last element
};

} // namespace

std::size_t widthOf(Scalar scalar) {
    switch (scalar) {
    case Scalar::int8:
    case Scalar::uint8:
        return 1;
    case Scalar::int16:
    case Scalar::uint16:
        return 2;
    case Scalar::int32:
    case Scalar::uint32:
    case Scalar::float32:
        return 4;
    case Scalar::float64:
        break;
    }
    return 8;
}

const PlyProperty* PlyElement::find(std::string_view property) const {
    const auto found = std::ranges::find(properties, property, &PlyProperty::name);
    return found == properties.end() ? nullptr : &*found;
}

std::optional<std::uint64_t> PlyElement::recordBytes() const {
    std::uint64_t bytes = 0;
    for (const PlyProperty& property : properties) {
        if (property.isList()) {
            return std::nullopt;
        }
        bytes += widthOf(property.type);
    }
    return bytes;
}

const PlyElement* PlyHeader::find(std::string_view element) const {
    const auto found = std::ranges::find(elements, element, &PlyElement::name);
    return found == elements.end() ? nullptr : &*found;
}

bool looksLikePly(std::string_view start) {
    return start.starts_with("ply") && start.size() > 3 && (start[3] == '\r' || start[3] == '\n');
}

PlyHeader parsePlyHeader(std::string_view start, const std::string& name) {
    if (start.empty()) {
        throw SourceError(fmt::format("{}: the file is empty", name));
    }
    if (!looksLikePly(start)) {
        throw SourceError(fmt::format("{}:1: not a PLY file: its first line is not \"ply\"", name));
    }
    LineCutter cutter(start.substr(0, longestPlyHeader));
    HeaderParser parser(name);
    while (const std::optional<std::string_view> line = cutter.next()) {
        if (parser.take(*line)) {
            return parser.finish(cutter.position());
        }
    }
    throw SourceError(fmt::format(
        "{}: the header has no end_header line in its first {}: the file is cut, or not a PLY file", name,
        countOf(std::min(start.size(), longestPlyHeader), "byte", "bytes")));
}

} // namespace Tavrin::SplatSource
