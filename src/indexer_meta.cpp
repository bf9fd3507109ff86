#include "src/indexer_meta.h"

#include "src/indexer.h"
#include "src/indexer_files.h"
#include "src/platform.h"
#include "src/runlog.h"

#include <charconv>
#include <fstream>
#include <random>

namespace Tavrin::GaussionSplat {

std::string formatNumber(double value) {
    char text[32]; // at most 24: a sign, 17 digits, a point and e-308
    const std::to_chars_result end =
        std::to_chars(text, text + sizeof text, value, std::chars_format::general, 17);
    return std::string(text, end.ptr);
}

std::string quoted(const std::string& text) {
    return '"' + text + '"';
}

std::string tabs(int n) {
    return std::string(n > 0 ? static_cast<std::size_t>(n) : 0, '\t');
}

std::string formatVector3(double x, double y, double z) {
    return formatArray({x, y, z});
}

std::string formatArray(const std::vector<double>& values) {
    std::string text = "[";
    for (std::size_t i = 0; i < values.size(); ++i) {
        text += (i > 0 ? ", " : "") + formatNumber(values[i]);
    }
    return text + "]";
}

std::string generateGuid() {
    std::mt19937 engine(std::random_device{}());
    std::string guid;
    for (int i = 0; i < 32; ++i) {
        const std::uint32_t draw = static_cast<std::uint32_t>(engine());
        guid += "0123456789abcdef"[draw >> 28];
    }
    return guid;
}

std::string boundingBoxJson(const Vector3& bboxMin, const Vector3& bboxMax) {
    return "{\n" + tabs(2) + quoted("min") + ": " + formatVector3(bboxMin.x, bboxMin.y, bboxMin.z) + ", \n" +
           tabs(2) + quoted("max") + ": " + formatVector3(bboxMax.x, bboxMax.y, bboxMax.z) + "\n" + tabs(1) +
           "}";
}

namespace {

std::string vectorText(const Vector3& value) {
    return formatVector3(value.x, value.y, value.z);
}

std::string attributeEntry(const std::string& name, const std::string& min, const std::string& max) {
    return tabs(2) + "{\n" + tabs(3) + quoted("name") + ": " + quoted(name) + ",\n" + tabs(3) +
           quoted("min") + ": " + min + ", \n" + tabs(3) + quoted("max") + ": " + max + "\n" + tabs(2) + "}";
}

std::string rangeEntry(const std::string& name, const AttributeRange& range) {
    return attributeEntry(name, vectorText(range.min), vectorText(range.max));
}

// One line of the document: a key in quotes and its value.
std::string member(const std::string& key, const std::string& value) {
    return tabs(1) + quoted(key) + ": " + value + ",\n";
}

} // namespace

std::string metaText(const MetaValues& values) {
    const Params& params = values.params;
    std::string text = tabs(0) + "{\n";
    text += member("version", quoted("4.0"));
    text += member("guid", quoted(generateGuid()));
    text += member("name", quoted("Tavrin Splats"));
    text += member("description", quoted("Tavrin all right reserved"));
    text += member("source", quoted(params.dataType)); // deliberately crosswise, this and the next
    text += member("dataType", quoted(params.source));
    text += member("totalSplats", std::to_string(values.splats));
    text += member("totalLevel", std::to_string(values.totalLevel));
    text += member("cellLengthX", formatNumber(values.grid.cellSizeX));
    text += member("cellLengthY", formatNumber(values.grid.cellSizeY));
    text += member("indexDataSize", std::to_string(values.indexEntrySize));
    text += member("offset", formatVector3(params.offsetx, params.offsety, params.offsetz));
    text += member("epsg", std::to_string(params.epsg));
    text += member("shift", formatVector3(params.shiftx, params.shifty, params.shiftz));
    text += member("scale", formatVector3(params.scalex, params.scaley, params.scalez));
    text += member("splats", values.countLabel);
    text += member("boundingBox", boundingBoxJson(values.bboxMin, values.bboxMax));
    text += member("encoding", quoted(values.compressed ? "COMPRESS" : "DEFAULT"));
    text += member("fileType", quoted(values.bounding.hasShcoef ? "Quality" : "Portable"));
    text += tabs(1) + quoted("attributes") + ": " +
            attributesJson(values.bounding, values.bboxMin, values.bboxMax) + "\n";
    return text + tabs(0) + "}\n";
}

std::string attributesJson(const AttributeBounding& bounding, const Vector3& bboxMin,
                           const Vector3& bboxMax) {
    const auto timesTen = [](const Vector3& corner) {
        return formatVector3(corner.x * 10.0, corner.y * 10.0, corner.z * 10.0);
    };
    const std::string entries[] = {
        attributeEntry("position", timesTen(bboxMin), timesTen(bboxMax)),
        rangeEntry("normal", bounding.normal),
        rangeEntry("color", bounding.color),
        rangeEntry("shcoef", bounding.shcoef),
        attributeEntry("opacity", formatArray({bounding.opacity.min.x}),
                       formatArray({bounding.opacity.max.x})),
        rangeEntry("scale", bounding.scale),
        rangeEntry("envnormal", bounding.normal),
        rangeEntry("envshcoef", bounding.shcoef),
        rangeEntry("envscale", bounding.scale),
    };
    std::string text = "[\n";
    for (const std::string& entry : entries) {
        text += entry + (&entry == std::end(entries) - 1 ? "\n" : ",\n");
    }
    return text + tabs(1) + "]";
}

void Indexer::writeMeta() {
    const SplatHeader& header = headers.front();
    const std::string text = metaText({.params = *params,
                                       .bounding = *bounding,
                                       .grid = chunkGrid,
                                       .bboxMin = header.bboxMin,
                                       .bboxMax = header.bboxMax,
                                       .splats = totalSplats,
                                       .totalLevel = totalLevel,
                                       .indexEntrySize = indexEntrySize,
                                       .countLabel = countLabel,
                                       .compressed = compressed != 0});
    std::ofstream file(nativePath(outputFolder + '/' + metaFileName), std::ios::out | std::ios::trunc);
    if (!file) {
        logError("cannot open meta file,write file fail", indexerSource, 519);
        endProcess(-1);
    }
    file.write(text.data(), static_cast<std::streamsize>(text.size()));
}

} // namespace Tavrin::GaussionSplat
