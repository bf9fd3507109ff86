#include "program/convert/text_sizes.h"

#include "program/convert/publish.h"
#include "program/system/platform.h"
#include "reader/format.h"

#include <fmt/format.h>

#include <algorithm>
#include <initializer_list>
#include <limits>
#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {
namespace {

namespace Format = SplatReader::Format;

// A sign, 17 digits, a point and an exponent of three digits.
constexpr std::string_view longestNumber = "-1.2345678901234567e-308";
constexpr std::string_view anyGuid = "00000000000000000000000000000000";
constexpr std::uint64_t longestProcessId = std::numeric_limits<std::uint32_t>::max();

std::uint64_t bytesOf(const std::string& text) {
    const auto lines = static_cast<std::uint64_t>(std::ranges::count(text, '\n'));
    return text.size() - lines + lines * lineEndBytes();
}

std::string inQuotes(std::string_view text) {
    return fmt::format("\"{}\"", text);
}

std::string numberText(double value) {
    return fmt::format("{:.17g}", value);
}

std::string listText(double x, double y, double z) {
    return fmt::format("[{:.17g}, {:.17g}, {:.17g}]", x, y, z);
}

std::string statedText(const SceneComments& comments, const std::string& name, double otherwise) {
    return listText(comments.kept(name + "x", otherwise), comments.kept(name + "y", otherwise),
                    comments.kept(name + "z", otherwise));
}

std::string boxText(const Box& box, double factor, std::string_view indent) {
    const auto corner = [&](const Point& at) {
        return listText(at[0] * factor, at[1] * factor, at[2] * factor);
    };
    return fmt::format("{0}\"min\": {1}, \n{0}\"max\": {2}\n", indent, corner(box.min), corner(box.max));
}

std::string rangeText(std::string_view name, const Plan& plan) {
    if (name == "position") {
        return boxText(plan.box, Format::positionRangeFactor, "\t\t\t");
    }
    if (name.ends_with("shcoef") && !plan.input.file.layout.hasCoefficients()) {
        return boxText({{0.0, 0.0, 0.0}, {1.0, 1.0, 1.0}}, 1.0, "\t\t\t");
    }
    const std::string list = name == "opacity" ? fmt::format("[{}]", longestNumber)
                                               : fmt::format("[{0}, {0}, {0}]", longestNumber);
    return fmt::format("\t\t\t\"min\": {0}, \n\t\t\t\"max\": {0}\n", list);
}

} // namespace

std::uint64_t metaBytesAtMost(const Plan& plan) {
    const SceneComments& comments = plan.input.comments;
    const bool hasCoefficients = plan.input.file.layout.hasCoefficients();
    const std::string records = std::to_string(plan.input.file.records);
    std::string text = "{\n";
    const auto add = [&](std::string_view key, const std::string& value) {
        text += fmt::format("\t\"{}\": {},\n", key, value);
    };
    add("version", inQuotes(Format::version));
    add("guid", inQuotes(anyGuid));
    add("name", inQuotes(Format::name));
    add("description", inQuotes(Format::description));
    add("source", inQuotes(comments.dataType.empty() ? "ply" : comments.dataType)); // "ytr" is as long
    add("dataType", inQuotes(comments.source));
    add("totalSplats", records);
    add("totalLevel", "1");
    add("cellLengthX", numberText(plan.grid.cellSizeX));
    add("cellLengthY", numberText(plan.grid.cellSizeY));
    add("indexDataSize", std::to_string(Format::indexKeySize + Format::indexLevelSize));
    add("offset", statedText(comments, "offset", 0.0));
    add("epsg", std::to_string(comments.epsg));
    add("shift", statedText(comments, "shift", 0.0));
    add("scale", statedText(comments, "scale", 1.0));
    add("splats", fmt::format("[{}]", records));
    add("boundingBox", fmt::format("{{\n{}\t}}", boxText(plan.box, 1.0, "\t\t")));
    add("encoding", inQuotes("COMPRESS"));
    add("fileType", inQuotes(hasCoefficients ? "Quality" : "Portable"));
    text += "\t\"attributes\": [\n";
    for (const std::string_view name : Format::attributeNames) {
        const bool isLast = name == Format::attributeNames.back();
        text += fmt::format("\t\t{{\n\t\t\t\"name\": \"{}\",\n{}\t\t}}{}\n", name, rangeText(name, plan),
                            isLast ? "" : ",");
    }
    return bytesOf(text + "\t]\n}\n");
}

std::uint64_t logBytesAtMost(const Plan& plan, const OutputPlace& output) {
    const auto nameOf = [](const std::filesystem::path& path) { return converterPath(path).value_or(""); };
    return bytesOf(fmt::format("INFO(convert:74): input data file:{}\n"
                               "INFO(convert:75): out input file path:{}\n"
                               "INFO(chunker:37): Start chunking... \n"
                               "INFO(chunker:342): chunking finished . \n"
                               "INFO(indexer:29): Start Index ,need a little time ... \n"
                               "INFO(indexer:38): Index finished ,Start create Data... \n"
                               "INFO(indexer:694): Data create finished , free file stream... \n"
                               "INFO(indexer:701): Data create finished , free file stream success.\n"
                               "INFO(indexer:40): Index finished ,Start create Index... \n"
                               "INFO(indexer:42): Index finished ,Start create meta data \n"
                               "INFO(indexer:45): All tasks finished .\n",
                               nameOf(pathFromText(plan.input.name)),
                               nameOf(partialPath(output.folder, longestProcessId))));
}

} // namespace Tavrin::SplatProgram
