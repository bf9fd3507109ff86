#include "program/scene/ply_header.h"

#include "program/system/exit_status.h"
#include "program/system/platform.h"
#include "program/terminal/console.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>

namespace Tavrin::SplatProgram {
namespace {

constexpr std::size_t longestHeader = 1 << 20; // bytes; headers in the field have a few thousand
constexpr std::size_t longestQuote = 40;       // characters of a line that a message repeats

std::string quoted(std::string_view text) {
    const bool isLong = text.size() > longestQuote;
    return fmt::format("\"{}{}\"", printable(text.substr(0, longestQuote)), isLong ? "..." : "");
}

std::string_view withoutCarriageReturn(std::string_view line) {
    return line.ends_with('\r') ? line.substr(0, line.size() - 1) : line;
}

// Builds the header line by line; every failure names file and line.
class HeaderParser {
public:
    explicit HeaderParser(std::string file) : file_(std::move(file)) {}

    // True when the line is the last of the header.
    bool take(std::string_view line) {
        header_.lines.emplace_back(line);
        if (header_.lines.size() == 1) {
            takeMagic(line);
            return false;
        }
        if (withoutCarriageReturn(line) == "end_header") {
            header_.endsWithCarriageReturn = line.ends_with('\r');
            return true;
        }
        takeKeyword(line);
        return false;
    }

    PlyHeader finish(std::uint64_t length) {
        if (header_.format.empty()) {
            fail("the header has no format line: write the file again with \"format binary_little_endian "
                 "1.0\"");
        }
        header_.length = length;
        return std::move(header_);
    }

private:
    [[noreturn]] void fail(const std::string& what) const {
        throw Failure(ExitStatus::inputRefused, fmt::format("{}:{}: {}", file_, header_.lines.size(), what));
    }

    void takeMagic(std::string_view line) const {
        if (withoutCarriageReturn(line) == "ply") {
            return;
        }
        if (line.starts_with("ply\r")) {
            fail("the header's lines end with a carriage return alone: write the file again with line feeds");
        }
        fail("not a PLY file: its first line is not \"ply\"");
    }

    void takeKeyword(std::string_view line) {
        const std::vector<std::string_view> words = wordsOf(line);
        if (words.empty()) {
            fail("an empty line in the header: remove it");
        }
        const std::string_view keyword = words.front();
        if (keyword == "format") {
            takeFormat(words);
        } else if (keyword == "element") {
            takeElement(words);
        } else if (keyword == "property") {
            takeProperty(words);
        } else if (keyword == "end_header") {
            fail("the end_header line holds more than that word: remove the rest of the line, blanks "
                 "included");
        } else if (keyword != "comment" && keyword != "obj_info") {
            fail(fmt::format("not a PLY header line: {}", quoted(line)));
        }
    }

    void takeFormat(const std::vector<std::string_view>& words) {
        constexpr std::array<std::string_view, 3> formats = {"binary_little_endian", "binary_big_endian",
                                                             "ascii"};
        if (!header_.format.empty()) {
            fail("a second format line: remove it");
        }
        if (words.size() != 3 || std::ranges::find(formats, words[1]) == formats.end() || words[2] != "1.0") {
            fail("the format line is not \"format binary_little_endian 1.0\"");
        }
        header_.format = words[1];
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
            fail(fmt::format("the count {} of element {} is too large for any file", quoted(words[2]),
                             quoted(words[1])));
        }
        if (error != std::errc() || stop != end) {
            fail(fmt::format("the count {} of element {} is not a whole number", quoted(words[2]),
                             quoted(words[1])));
        }
        header_.elements.push_back(std::move(element));
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
        property.type = words[words.size() - 2];
        property.countType = isList ? words[2] : std::string_view();
        property.line = header_.lines.size();
        header_.elements.back().properties.push_back(std::move(property));
    }

    std::string file_;
    PlyHeader header_;
};

std::string readStart(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: the input cannot be opened for reading: check its permissions",
                                  textFromPath(path)));
    }
    std::string start(longestHeader, '\0');
    file.read(start.data(), static_cast<std::streamsize>(start.size()));
    start.resize(static_cast<std::size_t>(file.gcount()));
    return start;
}

} // namespace

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

PlyHeader readPlyHeader(const std::filesystem::path& path) {
    const std::string start = readStart(path);
    const std::string file = textFromPath(path);
    HeaderParser parser(file);
    if (start.empty()) {
        throw Failure(ExitStatus::inputRefused, fmt::format("{}: the file is empty", file));
    }
    for (std::size_t begin = 0; begin < start.size();) {
        const std::size_t end = start.find('\n', begin);
        const std::size_t next = end == std::string::npos ? start.size() : end + 1;
        const std::size_t length = end == std::string::npos ? end : end - begin;
        if (parser.take(std::string_view(start).substr(begin, length))) {
            return parser.finish(next);
        }
        begin = next;
    }
    throw Failure(
        ExitStatus::inputRefused,
        fmt::format("{}: the header has no end_header line: the file is cut, or no PLY file", file));
}

} // namespace Tavrin::SplatProgram
