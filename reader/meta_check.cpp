// Checks of the meta document alone: relations between its values, and its exact form.

#include "reader/meta.h"

#include "reader/format.h"
#include "reader/grid.h"
#include "reader/metatext.h"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace Tavrin::SplatReader {
namespace {

// 17 significant digits in general notation, from which every double can be read back exactly.
std::string numberText(double value) {
    char buffer[40];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, 17).ptr;
    return std::string(buffer, end);
}

std::string listText(const Point& values, std::size_t count) {
    std::string text = "[";
    for (std::size_t i = 0; i < count; ++i) {
        text += (i == 0 ? "" : ", ") + numberText(values[i]);
    }
    return text + "]";
}

std::string_view axisName(std::size_t axis) {
    return std::string_view("xyz").substr(axis, 1);
}

std::string quoted(std::string_view text) {
    return joined({"\"", text, "\""});
}

// Equal as numbers; NaN equals NaN, because repeated entries repeat it, too.
bool same(double a, double b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}

class Checker {
public:
    Checker(const Meta& meta, std::string_view text, Findings& findings)
        : meta_(meta), text_(text), findings_(findings) {}

    void run() {
        checkIdentity();
        checkCounts();
        checkBox();
        checkAttributes();
        checkForm();
    }

private:
    // The keys are known to be in order, so the first occurrence at a line's start is the key itself.
    std::uint64_t offsetOf(std::string_view key) const {
        const std::size_t at = text_.find(joined({"\"", key, "\":"}));
        return at == std::string_view::npos ? 0 : at;
    }

    void error(std::string_view kind, std::string_view key, std::string expected, std::string found) {
        findings_.error(kind, Format::metaFile, offsetOf(key), std::move(expected), std::move(found));
    }

    void fixedText(std::string_view key, std::string_view expected, const std::string& found) {
        if (found != expected) {
            error("meta-identity", key, quoted(key) + ": " + quoted(expected), quoted(found.substr(0, 60)));
        }
    }

    void checkIdentity() {
        fixedText("version", Format::version, meta_.version);
        fixedText("name", Format::name, meta_.name);
        fixedText("description", Format::description, meta_.description);
        if (meta_.guid.size() != 32 ||
            meta_.guid.find_first_not_of("0123456789abcdef") != std::string::npos) {
            error("meta-identity", "guid", "32 lowercase hexadecimal digits",
                  quoted(meta_.guid.substr(0, 60)));
        }
        if (meta_.encoding != "COMPRESS" && meta_.encoding != "DEFAULT") {
            error("meta-identity", "encoding", "\"COMPRESS\" or \"DEFAULT\"",
                  quoted(meta_.encoding.substr(0, 60)));
        }
        if (meta_.fileType != "Quality" && meta_.fileType != "Portable") {
            error("meta-identity", "fileType", "\"Quality\" or \"Portable\"",
                  quoted(meta_.fileType.substr(0, 60)));
        }
    }

    void checkCounts() {
        if (meta_.totalLevel < 1) {
            error("meta-counts", "totalLevel", "at least 1 level", std::to_string(meta_.totalLevel));
        } else {
            const std::uint64_t entry =
                Format::indexKeySize +
                std::uint64_t{Format::indexLevelSize} * static_cast<std::uint64_t>(meta_.totalLevel);
            if (meta_.indexDataSize != entry) {
                error("meta-counts", "indexDataSize",
                      std::to_string(entry) + " (4 + 16 for each of " + std::to_string(meta_.totalLevel) +
                          " levels)",
                      std::to_string(meta_.indexDataSize));
            }
        }
        if (meta_.splats.size() != 1 || meta_.splats.front() != meta_.totalSplats) {
            error("meta-counts", "splats",
                  joined({"[", std::to_string(meta_.totalSplats), "], as \"totalSplats\" says"}),
                  meta_.splats.size() == 1 ? joined({"[", std::to_string(meta_.splats.front()), "]"})
                                           : "an array of " + std::to_string(meta_.splats.size()));
        }
        const CellLengths cell = expectedCellLengths(meta_.totalSplats, meta_.boundingMin, meta_.boundingMax);
        checkCellLength("cellLengthX", cell.x, meta_.cellLengthX);
        checkCellLength("cellLengthY", cell.y, meta_.cellLengthY);
    }

    void checkCellLength(std::string_view key, double expected, double found) {
        if (!same(expected, found)) {
            error("meta-cell-length", key,
                  numberText(expected) + ", as the splat count and the bounding box give it",
                  numberText(found));
        }
    }

    void checkBox() {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            const double min = meta_.boundingMin[axis];
            const double max = meta_.boundingMax[axis];
            if (!std::isfinite(min) || !std::isfinite(max) || min > max) {
                error("meta-range", "boundingBox",
                      joined({"a finite box with min <= max on axis ", axisName(axis)}),
                      numberText(min) + " to " + numberText(max));
            }
        }
    }

    void checkAttributes() {
        for (std::size_t i = 0; i < meta_.attributes.size(); ++i) {
            const Range& range = meta_.attributes[i];
            if (Format::attributeRepeats[i] != i) {
                checkRepeat(i, meta_.attributes[Format::attributeRepeats[i]]);
            } else if (i != 0) {
                checkRange(i, range);
            }
        }
        for (std::size_t axis = 0; axis < 3; ++axis) {
            checkPosition("min", meta_.boundingMin[axis], meta_.attributes[0].min[axis]);
            checkPosition("max", meta_.boundingMax[axis], meta_.attributes[0].max[axis]);
        }
        checkInside(2, 0.0, 1.0);
        checkInside(4, 0.0, 1.0);
        checkInside(5, 0.0, HUGE_VAL);
    }

    std::uint64_t entryOffset(std::size_t attribute) const {
        const std::size_t list = text_.find("\"attributes\":");
        const std::size_t at = list == std::string_view::npos
                                   ? list
                                   : text_.find(quoted(Format::attributeNames[attribute]), list);
        return at == std::string_view::npos ? 0 : at;
    }

    std::string label(std::size_t attribute, std::size_t axis) const {
        return joined({quoted(Format::attributeNames[attribute]), " axis ", axisName(axis)});
    }

    void checkRange(std::size_t attribute, const Range& range) {
        for (std::size_t axis = 0; axis < range.components; ++axis) {
            const double min = range.min[axis];
            const double max = range.max[axis];
            const std::string found = numberText(min) + " to " + numberText(max);
            if (range.empty(axis)) {
                findings_.warning("meta-range", Format::metaFile, entryOffset(attribute),
                                  "a range of " + label(attribute, axis) + " that some splat widened", found);
            } else if (!(min <= max)) {
                findings_.error("meta-range", Format::metaFile, entryOffset(attribute),
                                "min <= max for " + label(attribute, axis), found);
            } else if (!range.finite(axis)) {
                findings_.warning("meta-range", Format::metaFile, entryOffset(attribute),
                                  "a finite range of " + label(attribute, axis), found);
            }
        }
    }

    void checkRepeat(std::size_t attribute, const Range& original) {
        const Range& range = meta_.attributes[attribute];
        for (std::size_t axis = 0; axis < range.components; ++axis) {
            if (!same(range.min[axis], original.min[axis]) || !same(range.max[axis], original.max[axis])) {
                findings_.error("meta-repeat", Format::metaFile, entryOffset(attribute),
                                label(attribute, axis) + " to repeat \"" +
                                    std::string(Format::attributeNames[Format::attributeRepeats[attribute]]) +
                                    "\", " + numberText(original.min[axis]) + " to " +
                                    numberText(original.max[axis]),
                                numberText(range.min[axis]) + " to " + numberText(range.max[axis]));
            }
        }
    }

    void checkPosition(std::string_view end, double box, double position) {
        const double expected = box * Format::positionRangeFactor;
        if (!same(expected, position)) {
            findings_.error("meta-position", Format::metaFile, entryOffset(0),
                            numberText(expected) + " in the " + std::string(end) +
                                " of \"position\", ten times the bounding box",
                            numberText(position));
        }
    }

    void checkInside(std::size_t attribute, double lowest, double highest) {
        const Range& range = meta_.attributes[attribute];
        for (std::size_t axis = 0; axis < range.components; ++axis) {
            if (!range.empty(axis) && (range.min[axis] < lowest || range.max[axis] > highest)) {
                findings_.error("meta-range", Format::metaFile, entryOffset(attribute),
                                label(attribute, axis) + " inside " + numberText(lowest) + " to " +
                                    numberText(highest),
                                numberText(range.min[axis]) + " to " + numberText(range.max[axis]));
            }
        }
    }

    // Checks that the text has exactly the form of the writer. A tool that rewrote it may have lost digits.
    void checkForm() {
        const std::size_t firstLine = text_.find('\n');
        const bool crlf =
            firstLine != std::string_view::npos && firstLine > 0 && text_[firstLine - 1] == '\r';
        const std::string form = renderMeta(meta_, crlf ? "\r\n" : "\n");
        if (form == text_) {
            return;
        }
        const auto at =
            std::mismatch(form.begin(), form.end(), text_.begin(), text_.end()).first - form.begin();
        const auto place = static_cast<std::size_t>(at);
        const auto shown = [place](std::string_view text) {
            return place < text.size()
                       ? "byte value " + std::to_string(static_cast<unsigned char>(text[place]))
                       : std::string("the end of the file");
        };
        findings_.warning("meta-form", Format::metaFile, place,
                          "the document's own spacing and digits, " + shown(form), shown(text_));
    }

    const Meta& meta_;
    std::string_view text_;
    Findings& findings_;
};

} // namespace

std::string renderMeta(const Meta& meta, std::string_view lineEnd) {
    std::string text;
    const auto line = [&text, lineEnd](std::string_view content) { text.append(content).append(lineEnd); };
    const auto key = [&line](std::string_view name, const std::string& value) {
        line(joined({"\t", quoted(name), ": ", value, ","}));
    };
    line("{");
    key("version", quoted(meta.version));
    key("guid", quoted(meta.guid));
    key("name", quoted(meta.name));
    key("description", quoted(meta.description));
    key("source", quoted(meta.source));
    key("dataType", quoted(meta.dataType));
    key("totalSplats", std::to_string(meta.totalSplats));
    key("totalLevel", std::to_string(meta.totalLevel));
    key("cellLengthX", numberText(meta.cellLengthX));
    key("cellLengthY", numberText(meta.cellLengthY));
    key("indexDataSize", std::to_string(meta.indexDataSize));
    key("offset", listText(meta.offset, 3));
    key("epsg", std::to_string(meta.epsg));
    key("shift", listText(meta.shift, 3));
    key("scale", listText(meta.scale, 3));
    std::string counts;
    for (const std::uint64_t count : meta.splats) {
        counts += (counts.empty() ? "" : ", ") + std::to_string(count);
    }
    key("splats", joined({"[", counts, "]"}));
    line("\t\"boundingBox\": {");
    line("\t\t\"min\": " + listText(meta.boundingMin, 3) + ", ");
    line("\t\t\"max\": " + listText(meta.boundingMax, 3));
    line("\t},");
    key("encoding", quoted(meta.encoding));
    key("fileType", quoted(meta.fileType));
    line("\t\"attributes\": [");
    for (std::size_t i = 0; i < meta.attributes.size(); ++i) {
        const Range& range = meta.attributes[i];
        line("\t\t{");
        line("\t\t\t\"name\": " + quoted(Format::attributeNames[i]) + ",");
        line("\t\t\t\"min\": " + listText(range.min, range.components) + ", ");
        line("\t\t\t\"max\": " + listText(range.max, range.components));
        line(i + 1 < meta.attributes.size() ? "\t\t}," : "\t\t}");
    }
    line("\t]");
    line("}");
    return text;
}

void checkMeta(const Meta& meta, std::string_view text, Findings& findings) {
    Checker(meta, text, findings).run();
}

} // namespace Tavrin::SplatReader
