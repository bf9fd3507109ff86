#include "source/comments.h"

#include "source/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <utility>

namespace Tavrin::SplatSource {
namespace {

constexpr std::array<std::string_view, 15> numberKeys = {"minx",   "miny",    "minz",    "maxx",    "maxy",
                                                         "maxz",   "offsetx", "offsety", "offsetz", "shiftx",
                                                         "shifty", "shiftz",  "scalex",  "scaley",  "scalez"};

bool isNumberKey(std::string_view key) {
    return std::ranges::find(numberKeys, key) != numberKeys.end();
}

bool isKey(std::string_view key) {
    return key == "source" || key == "dataType" || key == "epsg" || isNumberKey(key);
}

std::string_view withoutPlus(std::string_view text) {
    return text.starts_with('+') && !text.starts_with("+-") ? text.substr(1) : text;
}

// The whole text as a number; nothing if it is not a number, does not fit or is not finite.
template <typename Number>
std::optional<Number> wholeNumber(std::string_view text) {
    text = withoutPlus(text);
    Number number = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || stop != text.data() + text.size() ||
        !std::isfinite(static_cast<double>(number))) {
        return std::nullopt;
    }
    return number;
}

// True if the converter reads an element count from the start of the word.
bool startsWithCount(std::string_view word) {
    std::int64_t count = 0;
    word = withoutPlus(word);
    return std::from_chars(word.data(), word.data() + word.size(), count).ec == std::errc();
}

class CommentReader {
public:
    CommentReader(const PlyHeader& header, bool hasCoefficients)
        : header_(header), hasCoefficients_(hasCoefficients) {
        vertexLine_ = header.find("vertex")->line;
    }

    SceneComments read() {
        // The last line is end_header.
        for (line_ = 1; line_ < header_.lines.size(); ++line_) {
            takeLine(header_.lines[line_ - 1]);
        }
        return std::move(comments_);
    }

private:
    // The converter looks for its keywords anywhere in a line, whatever the line's own keyword is.
    void takeLine(std::string_view line) {
        const std::vector<std::string_view> words = wordsOf(line);
        if (words.size() == 3) {
            if (words[0] != "element" && line.find("element") != line.npos) {
                takeElement(words[2]);
            }
            if (line.find("comment") != line.npos) {
                takeComment(words[1], words[2]);
            }
            if (words[0] != "property" && line.find("property") != line.npos && words[2] == "f_rest_0" &&
                !hasCoefficients_) {
                error("this line is read as a property f_rest_0, which the vertices do not have: reword it");
            }
        } else if (words.size() > 1 && words[0] == "comment" && isKey(words[1])) {
            comments_.remarks.push_back(
                {line_,
                 fmt::format("this line is ignored: \"comment {} VALUE\" takes one value without blanks",
                             words[1])});
        }
    }

    void takeElement(std::string_view count) {
        if (line_ > vertexLine_ || !startsWithCount(count)) {
            error("this line is read as an element line, and its last word as the count of splats: reword "
                  "it");
        }
    }

    void takeComment(std::string_view key, std::string_view value) {
        if (key == "source" || key == "dataType") {
            takeText(key, value);
        } else if (key == "epsg") {
            takeEpsg(value);
        } else if (isNumberKey(key)) {
            takeNumber(key, value);
        }
    }

    void takeText(std::string_view key, std::string_view value) {
        if (!fitsMetaText(value)) {
            error(fmt::format(
                "the value of {} would make the meta document invalid JSON: write it in UTF-8 without "
                "quotes, backslashes and control characters",
                key));
        }
        (key == "source" ? comments_.source : comments_.dataType) = value;
    }

    void takeEpsg(std::string_view value) {
        const auto code = wholeNumber<std::int32_t>(value);
        if (!code) {
            error(fmt::format("the value \"{}\" of epsg is not a whole number: write the code alone", value));
            return;
        }
        comments_.epsg = *code;
    }

    void takeNumber(std::string_view key, std::string_view value) {
        const auto written = wholeNumber<double>(value);
        const auto kept = wholeNumber<float>(value);
        if (!kept || !written) {
            error(fmt::format(
                "the value \"{}\" of {} is not a finite decimal number in single precision's range: "
                "write it like -12.5",
                value, key));
            return;
        }
        comments_.numbers[std::string(key)] = {*written, double{*kept}, line_};
    }

    void error(std::string text) { comments_.errors.push_back({line_, std::move(text)}); }

    const PlyHeader& header_;
    bool hasCoefficients_;
    std::size_t vertexLine_ = 0;
    std::size_t line_ = 0;
    SceneComments comments_;
};

} // namespace

double SceneComments::kept(std::string_view key, double otherwise) const {
    const auto number = numbers.find(key);
    return number == numbers.end() ? otherwise : number->second.kept;
}

std::optional<Box> SceneComments::bounds() const {
    const Box box = {{kept("minx", 0.0), kept("miny", 0.0), kept("minz", 0.0)},
                     {kept("maxx", 1.0), kept("maxy", 1.0), kept("maxz", 1.0)}};
    if (std::abs(box.min[0]) > double{0.001f} && std::abs(box.max[0]) > double{0.1f}) {
        return box;
    }
    return std::nullopt;
}

bool fitsMetaText(std::string_view text) {
    std::size_t following = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (following > 0) {
            if ((byte & 0xC0u) != 0x80u) {
                return false;
            }
            --following;
            continue;
        }
        if (byte < 0x20 || byte == 0x7f || c == '"' || c == '\\' || (byte & 0xC0u) == 0x80u ||
            byte >= 0xF8u) {
            return false;
        }
        following = byte < 0xC0u ? 0 : byte < 0xE0u ? 1 : byte < 0xF0u ? 2 : 3;
    }
    return following == 0;
}

bool SceneComments::statesBounds() const {
    return numbers.contains("minx") || numbers.contains("maxx");
}

SceneComments readSceneComments(const PlyHeader& header, bool hasCoefficients) {
    return CommentReader(header, hasCoefficients).read();
}

GaussionSplat::Params paramsOf(const SceneComments& comments) {
    GaussionSplat::Params params;
    const std::pair<const char*, double*> fields[] = {
        {"minx", &params.minx},       {"miny", &params.miny},       {"minz", &params.minz},
        {"maxx", &params.maxx},       {"maxy", &params.maxy},       {"maxz", &params.maxz},
        {"offsetx", &params.offsetx}, {"offsety", &params.offsety}, {"offsetz", &params.offsetz},
        {"shiftx", &params.shiftx},   {"shifty", &params.shifty},   {"shiftz", &params.shiftz},
        {"scalex", &params.scalex},   {"scaley", &params.scaley},   {"scalez", &params.scalez},
    };
    for (const auto& [key, field] : fields) {
        *field = comments.kept(key, *field);
    }
    params.epsg = comments.epsg;
    params.source = comments.source;
    const char* const kind = comments.statesBounds() ? "ytr" : "ply";
    params.dataType = comments.dataType.empty() ? kind : comments.dataType;
    return params;
}

} // namespace Tavrin::SplatSource
