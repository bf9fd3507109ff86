#include "program/info/info_text.h"

#include "program/scene/open_scene.h"
#include "program/terminal/console.h"
#include "program/terminal/figures.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace Tavrin::SplatProgram {
namespace {

// Six digits are enough to read; --json has all of them.
std::string numberText(double value) {
    return fmt::format("{:.6g}", value);
}

template <typename Numbers>
std::string numbersText(const Numbers& values) {
    std::string text;
    for (const double value : values) {
        text += (text.empty() ? "" : ", ") + numberText(value);
    }
    return text;
}

std::string boxText(const SplatReader::Point& min, const SplatReader::Point& max) {
    return fmt::format("({}) to ({})", numbersText(min), numbersText(max));
}

// A line with a label, wrapped at blanks to `columns`; 0 wraps nothing.
std::string line(const char* label, const std::string& value, std::size_t columns) {
    constexpr std::size_t indent = 15;
    const std::size_t room = columns > 2 * indent ? columns - indent : std::string::npos;
    std::string text = fmt::format("  {:<{}}", label, indent - 2);
    std::string_view rest = value;
    while (rest.size() > room) {
        const std::size_t blank = rest.rfind(' ', room);
        if (blank == std::string_view::npos || blank == 0) {
            break;
        }
        text += fmt::format("{}\n{:{}}", rest.substr(0, blank), "", indent);
        rest.remove_prefix(blank + 1);
    }
    return fmt::format("{}{}\n", text, rest);
}

// A number with at most six digits, fewer if the table's column is too narrow.
std::string cellText(double value) {
    constexpr std::size_t room = 10;
    std::string text = numberText(value);
    for (int digits = 5; text.size() > room; --digits) {
        text = fmt::format("{:.{}g}", value, digits);
    }
    return text;
}

std::string sampleText(bool scanned, std::uint64_t sampled, std::uint64_t all) {
    if (sampled == all) {
        return fmt::format("all {} records", countText(all));
    }
    return fmt::format("percentiles from {} of {} records{}", countText(sampled), countText(all),
                       scanned ? ", smallest and largest from all"
                               : " (smallest and largest, too: --scan reads all)");
}

std::string attributesText(const std::vector<Distribution>& attributes, const InfoStyle& style) {
    constexpr std::size_t nameWidth = 12;
    constexpr std::size_t columnWidth = 11; // of each of the five figures
    constexpr std::size_t tableWidth = 2 + nameWidth + 5 * columnWidth + 2;
    std::size_t bars = style.bars == Bars::none ? 0 : Distribution::parts;
    while (bars > 0 && tableWidth + bars > style.columns) {
        bars = bars > 4 ? bars / 2 : 0;
    }
    std::string text = fmt::format("  {:<{}} {:>10} {:>10} {:>10} {:>10} {:>10}{}\n", "attribute", nameWidth,
                                   "smallest", "1 %", "median", "99 %", "largest",
                                   bars == 0   ? ""
                                   : bars < 11 ? "  spread"
                                               : "  1 % to 99 %");
    for (const Distribution& attribute : attributes) {
        if (attribute.values == 0) {
            text += fmt::format("  {:<{}} no finite value in {}\n", printable(attribute.name), nameWidth,
                                countText(attribute.notFinite, "record", "records"));
            continue;
        }
        text +=
            fmt::format("  {:<{}} {:>10} {:>10} {:>10} {:>10} {:>10}", printable(attribute.name), nameWidth,
                        cellText(attribute.smallest), cellText(attribute.low), cellText(attribute.median),
                        cellText(attribute.high), cellText(attribute.largest));
        if (bars > 0) {
            text += "  " + barsText(attribute, bars, style.bars == Bars::blocks);
        }
        if (attribute.notFinite > 0) {
            text += fmt::format("  ({} not finite)", countText(attribute.notFinite));
        }
        text += "\n";
    }
    return text;
}

// Splits a name into its trailing number and the text before it.
std::pair<std::string_view, std::optional<unsigned>> split(std::string_view name) {
    const std::size_t digits = name.find_last_not_of("0123456789") + 1;
    unsigned number = 0;
    const auto [stop, status] = std::from_chars(name.data() + digits, name.data() + name.size(), number);
    const bool numbered = digits > 0 && digits < name.size() && status == std::errc();
    return {name.substr(0, digits), numbered ? std::optional(number) : std::nullopt};
}

// "float: x y z f_rest_0..44": consecutive properties of one type share the type, consecutive numbers become
// a range.
std::string propertiesText(const std::vector<SplatSource::PlyProperty>& properties) {
    std::string text;
    std::string lastType;
    for (std::size_t i = 0; i < properties.size();) {
        const SplatSource::PlyProperty& first = properties[i];
        const std::string type = first.isList() ? "list of " + first.typeText : first.typeText;
        const auto [prefix, number] = split(first.name);
        std::size_t run = 1;
        while (number && i + run < properties.size() && properties[i + run].typeText == first.typeText &&
               split(properties[i + run].name) == std::pair(prefix, std::optional(*number + unsigned(run)))) {
            ++run;
        }
        if (type != lastType) {
            text += fmt::format("{}{}:", text.empty() ? "" : "; ", printable(type));
            lastType = type;
        }
        text += " " + printable(first.name);
        text += run > 1 ? fmt::format("..{}", *number + run - 1) : "";
        i += run;
    }
    constexpr std::size_t longest = 400;
    return text.size() > longest ? text.substr(0, text.rfind(' ', longest)) + " ..." : text;
}

std::string elementsText(const SceneFacts& facts, std::size_t columns) {
    std::string text;
    for (const SplatSource::PlyElement& element : facts.header.elements) {
        text += line("element",
                     fmt::format("{}: {} of {}", printable(element.name),
                                 countText(element.count, "record", "records"),
                                 countText(element.properties.size(), "property", "properties")),
                     columns);
        text += line("", propertiesText(element.properties), columns);
    }
    return text;
}

std::string layoutText(const SceneFacts& facts) {
    if (facts.layoutProblem.empty()) {
        return facts.isCanonical
                   ? fmt::format("{} floats a record, as the library reads them", facts.recordBytes / 4)
                   : "for the program; plyconvert normalise writes it for the library";
    }
    // The line above names the file, so the name is removed here.
    std::string problem = facts.layoutProblem;
    if (problem.starts_with(facts.name + ":")) {
        problem = problem.substr(facts.name.size() + 1);
        problem = problem.starts_with(' ') ? problem.substr(1) : "line " + problem;
    }
    return "the converter does not take it: " + problem;
}

std::string bodyText(const SceneFacts& facts) {
    std::string text = fmt::format("from byte {} on", countText(facts.header.length));
    if (facts.expectedBytes > 0 && facts.bytes > facts.expectedBytes) {
        text += fmt::format(", {} after the last record",
                            countText(facts.bytes - facts.expectedBytes, "byte", "bytes"));
    }
    return text;
}

// The box of x, y and z, if every record was read.
std::string measuredText(const SceneFacts& facts) {
    const auto find = [&facts](const char* name) {
        return std::ranges::find(facts.attributes, name, &Distribution::name);
    };
    const auto x = find("x");
    const auto y = find("y");
    const auto z = find("z");
    const auto end = facts.attributes.end();
    if (!facts.scanned || x == end || y == end || z == end) {
        return "not measured: --scan reads every record";
    }
    return boxText({x->smallest, y->smallest, z->smallest}, {x->largest, y->largest, z->largest});
}

std::string statedText(const SceneFacts& facts) {
    if (const auto box = facts.stated.bounds()) {
        return boxText(box->min, box->max);
    }
    const bool any = facts.stated.numbers.contains("minx") || facts.stated.numbers.contains("maxx");
    return any ? "stated, but not usable: the converter measures the box"
               : "none: the converter measures the box";
}

std::string cellTable(const DatasetFacts& facts) {
    const SplatReader::Dataset& dataset = facts.dataset;
    const SplatReader::Grid& grid = dataset.grid();
    std::string text = fmt::format("  {:>10} {:>7} {:>7} {:>12} {:>14}  {}\n", "key", "column", "row",
                                   "splats", "first record", "lower corner");
    for (std::size_t cell = 0; cell < dataset.cellCount(); ++cell) {
        const std::uint32_t key = dataset.cellKey(cell);
        const SplatReader::LevelRange& range = dataset.range(cell, 0);
        const std::uint32_t column = SplatReader::keyColumn(key);
        const std::uint32_t row = SplatReader::keyRow(key);
        text += fmt::format("  {:>10} {:>7} {:>7} {:>12} {:>14}  {}, {}\n", key, column, row,
                            countText(range.count), countText(range.offset / SplatReader::Format::recordSize),
                            numberText(double{grid.originX} + column * double{grid.cellSizeX}),
                            numberText(double{grid.originY} + row * double{grid.cellSizeY}));
    }
    return text;
}

// The name under which the list of attributes has this component.
std::string componentName(const QuantiserFacts& quantiser, std::size_t i) {
    constexpr std::array<const char*, 3> channels = {"red", "green", "blue"};
    if (quantiser.step.size() == 1) {
        return quantiser.name;
    }
    if (quantiser.name == "colour") {
        return channels[i];
    }
    return quantiser.name == "coefficients" ? fmt::format("shcoef {}", channels[i])
                                            : fmt::format("{} {}", quantiser.name, "xyz"[i]);
}

std::string quantiserText(const std::vector<QuantiserFacts>& quantisers) {
    std::string text = fmt::format("  {:<12} {:>12} {:>12} {:>12}\n", "quantiser", "from", "to", "step");
    for (const QuantiserFacts& quantiser : quantisers) {
        for (std::size_t i = 0; i < quantiser.step.size(); ++i) {
            const std::string step = quantiser.step[i] == 0.0 ? "exact" : numberText(quantiser.step[i]);
            text += fmt::format("  {:<12} {:>12} {:>12} {:>12}\n", componentName(quantiser, i),
                                numberText(quantiser.min[i]), numberText(quantiser.max[i]), step);
        }
    }
    return text;
}

std::string geoText(const SplatReader::Meta& meta) {
    return fmt::format("EPSG {}, offset ({}), shift ({}), scale ({})", meta.epsg, offsetNumbers(meta.offset),
                       numbersText(meta.shift), numbersText(meta.scale));
}

std::string cellsText(const DatasetFacts& facts) {
    const std::size_t cells = facts.dataset.cellCount();
    std::string text = countText(cells, "cell", "cells");
    if (!facts.dataset.meta().oneCell()) {
        text += fmt::format(" of {} by {} units", numberText(facts.dataset.meta().cellLengthX),
                            numberText(facts.dataset.meta().cellLengthY));
    }
    if (cells > 1) {
        text += fmt::format("; splats in one: {} at least, {} in the median, {} at most",
                            countText(facts.smallestCell), countText(facts.medianCell),
                            countText(facts.largestCell));
    }
    return text;
}

} // namespace

std::string sceneText(const SceneFacts& facts, const InfoStyle& style) {
    const bool splats = facts.degree.has_value();
    const auto put = [&style](const char* label, const std::string& value) {
        return line(label, value, style.columns);
    };
    std::string text =
        fmt::format("{}: {}{}, {}\n", facts.name, facts.kind == "PLY" ? "a PLY file" : facts.kind,
                    splats ? fmt::format(" of {}", countText(*facts.splats, "splat", "splats")) : "",
                    bytesText(facts.bytes));
    const bool isPly = facts.kind == "PLY";
    if (isPly) {
        text += put("format", printable(facts.header.formatText));
        text += elementsText(facts, style.columns);
        text += put("layout", printable(layoutText(facts)));
    }
    if (splats) {
        text += put("degree", fmt::format("spherical harmonics of degree {}", *facts.degree));
    }
    if (isPly) {
        text += put("body", bodyText(facts));
    }
    for (const std::string& comment : facts.comments) {
        const std::size_t word = comment.find_first_of(" \t");
        text += put(comment.starts_with("obj_info") ? "obj_info" : "comment",
                    printable(word == std::string::npos ? "" : comment.substr(word + 1)));
    }
    for (const std::string& remark : facts.remarks) {
        text += put("remark", printable(remark));
    }
    if (splats) {
        text += put("stated box", statedText(facts));
    }
    if (splats && facts.bodyProblem.empty()) {
        text += put("measured box", measuredText(facts));
    }
    if (facts.place) {
        text += put("offset", facts.place->text);
    }
    if (!facts.bodyProblem.empty()) {
        return text + put("values", "not read: " + facts.bodyProblem);
    }
    text += put("values", sampleText(facts.scanned, facts.sampled, facts.splats.value_or(0)));
    return text + attributesText(facts.attributes, style);
}

std::string datasetText(const DatasetFacts& facts, const InfoStyle& style) {
    const SplatReader::Dataset& dataset = facts.dataset;
    const SplatReader::Meta& meta = dataset.meta();
    const auto put = [&style](const char* label, const std::string& value) {
        return line(label, value, style.columns);
    };
    std::string text = fmt::format(
        "{}: a dataset of {}, {}\n", facts.name, countText(dataset.indexedCount(), "splat", "splats"),
        bytesText(facts.metaBytes + facts.indexBytes + facts.dataBytes + facts.coefficientBytes));
    text += put("guid", printable(meta.guid));
    text += put("made of", fmt::format("{}, kind {}", printable(meta.dataType), printable(meta.source)));
    text += put("place", geoText(meta));
    text += put("precision", fmt::format("single precision holds the positions of this box to {:.2g} mm",
                                         facts.positionHalfStep * 1000));
    text += put("box", boxText(meta.boundingMin, meta.boundingMax));
    text += put("cells", cellsText(facts));
    if (dataset.leftOut() > 0) {
        text += put("left out", fmt::format("{} of the input lay outside the grid",
                                            countText(dataset.leftOut(), "splat", "splats")));
    }
    if (dataset.levelCount() > 1) {
        text += put("levels", std::to_string(dataset.levelCount()));
    }
    text += put("bytes", fmt::format("data.bin {}, shcoef.bin {}, index.bin {}, meta document {}",
                                     countText(facts.dataBytes), countText(facts.coefficientBytes),
                                     countText(facts.indexBytes), countText(facts.metaBytes)));
    text += put("coefficients", meta.hasCoefficients() ? meta.packed() ? "packed" : "raw" : "none");
    text += quantiserText(facts.quantisers);
    text += put("values", sampleText(facts.scanned, facts.sampled, dataset.recordCount()));
    text += attributesText(facts.attributes, style);
    return style.cells ? text + cellTable(facts) : text;
}

} // namespace Tavrin::SplatProgram
