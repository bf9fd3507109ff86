// The text of the meta document as a tree of values that remember their offsets.
//
// It is JSON with two exceptions that the document needs. The number tokens inf, -inf, nan and -nan are
// allowed. Strings under "source" and "dataType" contain quotes and backslashes unescaped, because the writer
// never escapes them.
#pragma once

#include "reader/findings.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Tavrin::SplatReader {

struct MetaValue {
    enum class Kind { string, number, word, array, object };

    struct Member;

    Kind kind = Kind::word;
    std::uint64_t offset = 0; // of the value's first byte
    std::string text;         // string: its content; number and word (true, false, null): the token
    std::vector<MetaValue> items;
    std::vector<Member> members;

    const MetaValue* find(std::string_view key) const;
    // The value as a short text for a finding.
    std::string describe() const;
};

struct MetaValue::Member {
    std::string key;
    std::uint64_t offset = 0; // of the key's opening quote
    MetaValue value;
};

// The document's root. Nothing after reporting one error of kind "meta-syntax".
std::optional<MetaValue> parseMetaText(std::string_view text, Findings& findings);

// A number token as a double; nothing for another token.
std::optional<double> parseMetaNumber(std::string_view token);

} // namespace Tavrin::SplatReader
