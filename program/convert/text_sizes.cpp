#include "program/convert/text_sizes.h"

#include "program/convert/publish.h"
#include "program/system/platform.h"
#include "reader/format.h"
#include "reader/meta.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {
namespace {

namespace Format = SplatReader::Format;

// The number with the longest text: a sign, 17 digits, a point and an exponent of three digits.
constexpr double longestNumber = std::numeric_limits<double>::lowest();
constexpr std::uint64_t longestProcessId = std::numeric_limits<std::uint32_t>::max();

std::string_view lineEnd() {
    return lineEndBytes() == 2 ? "\r\n" : "\n";
}

SplatReader::Range rangeOf(std::string_view name, const Plan& plan) {
    SplatReader::Range range;
    range.components = name == "opacity" ? 1 : 3;
    range.min.fill(longestNumber);
    range.max.fill(longestNumber);
    if (name == "position") {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            range.min[axis] = plan.box.min[axis] * Format::positionRangeFactor;
            range.max[axis] = plan.box.max[axis] * Format::positionRangeFactor;
        }
    } else if (name.ends_with("shcoef") && !plan.hasCoefficients()) {
        range.min.fill(0.0);
        range.max.fill(1.0);
    }
    return range;
}

} // namespace

std::uint64_t metaBytesAtMost(const Plan& plan) {
    const GaussionSplat::Params& params = plan.measured.params;
    SplatReader::Meta meta;
    meta.version = Format::version;
    meta.guid.assign(32, '0');
    meta.name = Format::name;
    meta.description = Format::description;
    meta.source = params.dataType;
    meta.dataType = params.source;
    meta.totalSplats = plan.measured.splats;
    meta.totalLevel = 1;
    meta.cellLengthX = plan.grid.cellSizeX;
    meta.cellLengthY = plan.grid.cellSizeY;
    meta.indexDataSize = Format::indexKeySize + Format::indexLevelSize;
    meta.offset = {params.offsetx, params.offsety, params.offsetz};
    meta.epsg = params.epsg;
    meta.shift = {params.shiftx, params.shifty, params.shiftz};
    meta.scale = {params.scalex, params.scaley, params.scalez};
    meta.splats = {meta.totalSplats};
    meta.boundingMin = plan.box.min;
    meta.boundingMax = plan.box.max;
    meta.encoding = "COMPRESS";
    meta.fileType = plan.hasCoefficients() ? "Quality" : "Portable";
    for (std::size_t i = 0; i < meta.attributes.size(); ++i) {
        meta.attributes[i] = rangeOf(Format::attributeNames[i], plan);
    }
    return SplatReader::renderMeta(meta, lineEnd()).size();
}

std::uint64_t logBytesAtMost(const Plan& plan, const OutputPlace& output) {
    const auto nameOf = [](const std::filesystem::path& path) { return converterPath(path).value_or(""); };
    const std::string text =
        fmt::format("INFO(convert:74): input data file:{}\n"
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
                    nameOf(pathFromText(plan.input)), nameOf(partialPath(output.folder, longestProcessId)));
    const auto lines = static_cast<std::uint64_t>(std::ranges::count(text, '\n'));
    return text.size() + lines * (lineEndBytes() - 1);
}

} // namespace Tavrin::SplatProgram
