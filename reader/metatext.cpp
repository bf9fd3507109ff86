#include "reader/metatext.h"

#include "reader/format.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace Tavrin::SplatReader {
namespace {

// A finished document has about a hundred values, three levels deep. The limits keep a malicious text from
// becoming a tree many times its own size.
constexpr std::size_t valueLimit = 20'000;
constexpr int depthLimit = 8;

struct SyntaxError {
    std::uint64_t offset;
    std::string expected;
};

std::string describeByte(std::string_view text, std::uint64_t offset) {
    if (offset >= text.size()) {
        return "the end of the file";
    }
    const auto byte = static_cast<unsigned char>(text[offset]);
    if (byte >= 0x20 && byte < 0x7F) {
        return text[offset] == '"' ? "a quotation mark" : std::string("\"") + text[offset] + "\"";
    }
    return "the byte " + std::to_string(byte);
}

class Parser {
public:
    explicit Parser(std::string_view text) : text_(text) {}

    MetaValue parseDocument() {
        MetaValue root = parseValue(0, {});
        skipBlanks();
        if (at_ != text_.size()) {
            throw SyntaxError{at_, "the end of the document"};
        }
        return root;
    }

private:
    void skipBlanks() {
        while (at_ < text_.size() &&
               (text_[at_] == ' ' || text_[at_] == '\t' || text_[at_] == '\n' || text_[at_] == '\r')) {
            ++at_;
        }
    }

    bool take(char wanted) {
        skipBlanks();
        if (at_ < text_.size() && text_[at_] == wanted) {
            ++at_;
            return true;
        }
        return false;
    }

    void need(char wanted) {
        if (!take(wanted)) {
            throw SyntaxError{at_, std::string("\"") + wanted + "\""};
        }
    }

    MetaValue parseValue(int depth, std::string_view key) {
        skipBlanks();
        if (depth > depthLimit || ++values_ > valueLimit) {
            throw SyntaxError{at_, "a document of at most " + std::to_string(valueLimit) + " values, " +
                                       std::to_string(depthLimit) + " levels deep"};
        }
        MetaValue value;
        value.offset = at_;
        if (at_ >= text_.size()) {
            throw SyntaxError{at_, "a value"};
        }
        switch (text_[at_]) {
        case '{':
            parseObject(value, depth);
            break;
        case '[':
            parseArray(value, depth);
            break;
        case '"':
            value.kind = MetaValue::Kind::string;
            value.text = key == "source" || key == "dataType" ? parseRawString() : parseString();
            break;
        default:
            parseToken(value);
        }
        return value;
    }

    void parseObject(MetaValue& value, int depth) {
        value.kind = MetaValue::Kind::object;
        ++at_;
        if (take('}')) {
            return;
        }
        do {
            skipBlanks();
            if (at_ >= text_.size() || text_[at_] != '"') {
                throw SyntaxError{at_, "a key in quotes"};
            }
            MetaValue::Member member;
            member.offset = at_;
            member.key = parseString();
            need(':');
            member.value = parseValue(depth + 1, member.key);
            value.members.push_back(std::move(member));
        } while (take(','));
        if (!take('}')) {
            throw SyntaxError{at_, "\",\" or \"}\""};
        }
    }

    void parseArray(MetaValue& value, int depth) {
        value.kind = MetaValue::Kind::array;
        ++at_;
        if (take(']')) {
            return;
        }
        do {
            value.items.push_back(parseValue(depth + 1, {}));
        } while (take(','));
        if (!take(']')) {
            throw SyntaxError{at_, "\",\" or \"]\""};
        }
    }

    // Nothing is escaped in the document, so a backslash is an ordinary character. The exception is a
    // backslash before a quote when the text came through another JSON writer.
    std::string parseString() {
        const std::uint64_t start = ++at_;
        while (at_ < text_.size() && text_[at_] != '"' && text_[at_] != '\n') {
            at_ += text_[at_] == '\\' && at_ + 1 < text_.size() && text_[at_ + 1] == '"' ? 2u : 1u;
        }
        if (at_ >= text_.size() || text_[at_] != '"') {
            throw SyntaxError{at_, "a closing quote"};
        }
        ++at_;
        return std::string(text_.substr(start, at_ - 1 - start));
    }

    // Parses a free text, which the writer does not escape. It ends at the last quote of its line if only a
    // comma follows that quote. Anything else is parsed as an ordinary string.
    std::string parseRawString() {
        std::uint64_t end = text_.find('\n', at_);
        end = end == std::string_view::npos ? text_.size() : end;
        if (end > at_ && text_[end - 1] == '\r') {
            --end;
        }
        const std::uint64_t start = at_ + 1;
        if (end >= start + 2 && text_[end - 1] == ',' && text_[end - 2] == '"') {
            at_ = end - 1;
            return std::string(text_.substr(start, end - 2 - start));
        }
        return parseString();
    }

    void parseToken(MetaValue& value) {
        const std::uint64_t start = at_;
        while (at_ < text_.size() &&
               std::string_view(",]} \t\r\n:\"[{").find(text_[at_]) == std::string_view::npos) {
            ++at_;
        }
        value.text = std::string(text_.substr(start, at_ - start));
        if (parseMetaNumber(value.text)) {
            value.kind = MetaValue::Kind::number;
        } else if (value.text == "true" || value.text == "false" || value.text == "null") {
            value.kind = MetaValue::Kind::word;
        } else {
            throw SyntaxError{start, "a value"};
        }
    }

    std::string_view text_;
    std::uint64_t at_ = 0;
    std::size_t values_ = 0;
};

} // namespace

const MetaValue* MetaValue::find(std::string_view key) const {
    for (const Member& member : members) {
        if (member.key == key) {
            return &member.value;
        }
    }
    return nullptr;
}

std::string MetaValue::describe() const {
    constexpr std::size_t longest = 60;
    switch (kind) {
    case Kind::string:
        return "\"" + (text.size() > longest ? text.substr(0, longest) + "..." : text) + "\"";
    case Kind::array:
        return "an array of " + std::to_string(items.size());
    case Kind::object:
        return "an object";
    case Kind::number:
    case Kind::word:
        break;
    }
    return text.size() > longest ? text.substr(0, longest) + "..." : text;
}

std::optional<MetaValue> parseMetaText(std::string_view text, Findings& findings) {
    try {
        return Parser(text).parseDocument();
    } catch (const SyntaxError& error) {
        findings.error("meta-syntax", Format::metaFile, error.offset, error.expected,
                       describeByte(text, error.offset));
        return std::nullopt;
    }
}

std::optional<double> parseMetaNumber(std::string_view token) {
    const bool negative = token.starts_with('-');
    const std::string_view digits = negative ? token.substr(1) : token;
    const double sign = negative ? -1.0 : 1.0;
    if (digits == "inf") {
        return sign * std::numeric_limits<double>::infinity();
    }
    if (digits == "nan" || digits == "nan(ind)" || digits == "nan(snan)") {
        return std::copysign(std::numeric_limits<double>::quiet_NaN(), sign);
    }
    // from_chars accepts more words for infinity and not-a-number. Only digits may start a number here.
    if (digits.empty() || digits.front() < '0' || digits.front() > '9') {
        return std::nullopt;
    }
    double value = 0.0;
    const auto [end, status] = std::from_chars(token.data(), token.data() + token.size(), value);
    if (status != std::errc() || end != token.data() + token.size()) {
        return std::nullopt;
    }
    return value;
}

} // namespace Tavrin::SplatReader
