#include "reader/meta.h"

#include "reader/format.h"
#include "reader/metatext.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <set>

namespace Tavrin::SplatReader {
namespace {

// Reads typed values from the tree. A value of the wrong type is reported and leaves the target unchanged.
// `usable` becomes false when the rest of the dataset cannot be read without the value.
class Extractor {
public:
    Extractor(const MetaValue& root, Findings& findings) : root_(root), findings_(findings) {}

    bool usable() const { return usable_; }

    void text(std::string_view key, std::string& target) {
        if (const MetaValue* value = get(key)) {
            if (value->kind == MetaValue::Kind::string) {
                target = value->text;
            } else {
                wrong(key, "a string", *value);
            }
        }
    }

    template <typename Integer>
    void integer(std::string_view key, Integer& target) {
        if (const MetaValue* value = get(key)) {
            readInteger(key, *value, target);
        }
    }

    void number(std::string_view key, double& target) {
        if (const MetaValue* value = get(key)) {
            readNumber(key, *value, target);
        }
    }

    void point(std::string_view key, Point& target) {
        if (const MetaValue* value = get(key)) {
            numbers(key, *value, target, 3);
        }
    }

    void counts(std::string_view key, std::vector<std::uint64_t>& target) {
        const MetaValue* value = get(key);
        if (value == nullptr) {
            return;
        }
        if (value->kind != MetaValue::Kind::array) {
            wrong(key, "an array of counts", *value);
            return;
        }
        for (const MetaValue& item : value->items) {
            std::uint64_t count = 0;
            readInteger(key, item, count);
            target.push_back(count);
        }
    }

    void box(std::string_view key, Point& min, Point& max) {
        const MetaValue* value = get(key);
        if (value == nullptr) {
            return;
        }
        if (value->kind != MetaValue::Kind::object) {
            wrong(key, "an object with \"min\" and \"max\"", *value);
            return;
        }
        bounds(key, *value, 0, min, max, 3);
    }

    void attributes(std::array<Range, 9>& target) {
        const MetaValue* value = get("attributes");
        if (value == nullptr) {
            return;
        }
        if (value->kind != MetaValue::Kind::array || value->items.size() != target.size()) {
            wrong("attributes", "an array of 9", *value);
            return;
        }
        for (std::size_t i = 0; i < target.size(); ++i) {
            attribute(value->items[i], Format::attributeNames[i], target[i]);
        }
    }

private:
    const MetaValue* get(std::string_view key) {
        const MetaValue* value = root_.find(key);
        if (value == nullptr) {
            findings_.error("meta-keys", Format::metaFile, root_.offset,
                            "the key \"" + std::string(key) + "\"", "no such key");
            usable_ = false;
        }
        return value;
    }

    void wrong(std::string_view key, const std::string& expected, const MetaValue& value) {
        findings_.error("meta-keys", Format::metaFile, value.offset,
                        expected + " under \"" + std::string(key) + "\"", value.describe());
        usable_ = false;
    }

    template <typename Integer>
    void readInteger(std::string_view key, const MetaValue& value, Integer& target) {
        Integer read{};
        const char* end = value.text.data() + value.text.size();
        const auto [stop, status] = std::from_chars(value.text.data(), end, read);
        if (value.kind != MetaValue::Kind::number || status != std::errc() || stop != end) {
            wrong(key,
                  "a whole number from " + std::to_string(std::numeric_limits<Integer>::min()) + " to " +
                      std::to_string(std::numeric_limits<Integer>::max()),
                  value);
            return;
        }
        target = read;
    }

    void readNumber(std::string_view key, const MetaValue& value, double& target) {
        const std::optional<double> read =
            value.kind == MetaValue::Kind::number ? parseMetaNumber(value.text) : std::nullopt;
        if (!read) {
            wrong(key, "a number", value);
            return;
        }
        target = *read;
    }

    void numbers(std::string_view key, const MetaValue& value, Point& target, std::size_t count) {
        if (value.kind != MetaValue::Kind::array || value.items.size() != count) {
            wrong(key, "an array of " + std::to_string(count), value);
            return;
        }
        for (std::size_t i = 0; i < count; ++i) {
            readNumber(key, value.items[i], target[i]);
        }
    }

    // Reads "min" and "max", which must be members `first` and `first + 1`, with nothing after them.
    void bounds(std::string_view key, const MetaValue& object, std::size_t first, Point& min, Point& max,
                std::size_t count) {
        if (object.members.size() != first + 2 || object.members[first].key != "min" ||
            object.members[first + 1].key != "max") {
            wrong(key, "\"min\" and \"max\", in this order and no others,", object);
            return;
        }
        numbers(key, object.members[first].value, min, count);
        numbers(key, object.members[first + 1].value, max, count);
    }

    void attribute(const MetaValue& entry, std::string_view name, Range& target) {
        target.components = name == "opacity" ? 1 : 3;
        const std::string expected = "the entry named \"" + std::string(name) + "\"";
        if (entry.kind != MetaValue::Kind::object || entry.members.empty() ||
            entry.members[0].key != "name" || entry.members[0].value.kind != MetaValue::Kind::string) {
            wrong("attributes", expected, entry);
            return;
        }
        if (entry.members[0].value.text != name) {
            wrong("attributes", expected, entry.members[0].value);
            return;
        }
        bounds(name, entry, 1, target.min, target.max, target.components);
    }

    const MetaValue& root_;
    Findings& findings_;
    bool usable_ = true;
};

// Checks that the document has exactly the twenty keys, each once and in order.
void checkKeys(const MetaValue& root, Findings& findings) {
    std::size_t next = 0;
    std::set<std::string> seen;
    for (const MetaValue::Member& member : root.members) {
        const auto* known = std::find(Format::metaKeys.begin(), Format::metaKeys.end(), member.key);
        const std::string found = "the key \"" + member.key.substr(0, 60) + "\"";
        if (known == Format::metaKeys.end()) {
            findings.error("meta-keys", Format::metaFile, member.offset, "one of the twenty keys", found);
            continue;
        }
        if (!seen.insert(member.key).second) {
            findings.error("meta-keys", Format::metaFile, member.offset, "each key once", found + " again");
            continue;
        }
        const auto index = static_cast<std::size_t>(known - Format::metaKeys.begin());
        if (index < next) {
            findings.error("meta-keys", Format::metaFile, member.offset,
                           "the key \"" + std::string(Format::metaKeys[next - 1]) + "\" after \"" +
                               member.key + "\"",
                           "it before");
            continue;
        }
        next = index + 1;
    }
}

} // namespace

bool Range::finite(std::size_t axis) const {
    return std::isfinite(min[axis]) && std::isfinite(max[axis]);
}

bool Range::empty(std::size_t axis) const {
    return std::isinf(min[axis]) && min[axis] > 0 && std::isinf(max[axis]) && max[axis] < 0;
}

bool Meta::oneCell() const {
    return totalSplats <= Format::oneCellMaximum;
}

std::optional<Meta> parseMeta(std::string_view text, Findings& findings) {
    const std::optional<MetaValue> root = parseMetaText(text, findings);
    if (!root) {
        return std::nullopt;
    }
    if (root->kind != MetaValue::Kind::object) {
        findings.error("meta-syntax", Format::metaFile, root->offset, "an object", root->describe());
        return std::nullopt;
    }
    checkKeys(*root, findings);
    Meta meta;
    Extractor extract(*root, findings);
    extract.text("version", meta.version);
    extract.text("guid", meta.guid);
    extract.text("name", meta.name);
    extract.text("description", meta.description);
    extract.text("source", meta.source);
    extract.text("dataType", meta.dataType);
    extract.integer("totalSplats", meta.totalSplats);
    extract.integer("totalLevel", meta.totalLevel);
    extract.number("cellLengthX", meta.cellLengthX);
    extract.number("cellLengthY", meta.cellLengthY);
    extract.integer("indexDataSize", meta.indexDataSize);
    extract.point("offset", meta.offset);
    extract.integer("epsg", meta.epsg);
    extract.point("shift", meta.shift);
    extract.point("scale", meta.scale);
    extract.counts("splats", meta.splats);
    extract.box("boundingBox", meta.boundingMin, meta.boundingMax);
    extract.text("encoding", meta.encoding);
    extract.text("fileType", meta.fileType);
    extract.attributes(meta.attributes);
    if (!extract.usable()) {
        return std::nullopt;
    }
    return meta;
}

} // namespace Tavrin::SplatReader
