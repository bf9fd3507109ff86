#include "program/tiles/catalogue.h"

#include "program/system/exit_status.h"
#include "program/tiles/names.h"
#include "reader/format.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>

namespace Tavrin::SplatProgram {
namespace {

using Json = nlohmann::ordered_json;
namespace fs = std::filesystem;
namespace Format = SplatReader::Format;

constexpr const char* projectionSchema = "https://stac-extensions.github.io/projection/v1.2.0/schema.json";
constexpr const char* pointCloudSchema = "https://stac-extensions.github.io/pointcloud/v2.0.0/schema.json";

Json ringJson(const Ring& ring) {
    Json points = Json::array();
    for (const LonLat& point : ring) {
        points.push_back({point.longitude, point.latitude});
    }
    return points;
}

Json geometryJson(const std::optional<Footprint>& footprint) {
    if (!footprint) {
        return nullptr;
    }
    Json parts = Json::array();
    for (const Ring& ring : footprint->polygons) {
        parts.push_back(Json::array({ringJson(ring)}));
    }
    const bool isOne = parts.size() == 1;
    return {{"type", isOne ? "Polygon" : "MultiPolygon"}, {"coordinates", isOne ? parts.front() : parts}};
}

// A footprint is made only for a known code.
void putCode(Json& target, std::int32_t epsg) {
    target["proj:code"] = epsg > 0 ? Json(fmt::format("EPSG:{}", epsg)) : Json(nullptr);
    target["proj:epsg"] = epsg > 0 ? Json(epsg) : Json(nullptr);
}

// One column of the point cloud: how a value of it is stored, and the bounds of the values.
struct Dimension {
    std::string name;
    int size; // bytes
    const char* type;
    double min;
    double max;
};

void addAxes(std::vector<Dimension>& dimensions, const std::array<const char*, 3>& names, int size,
             const char* type, const SplatReader::Range& range) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        dimensions.push_back({names[axis], size, type, range.min[axis], range.max[axis]});
    }
}

std::vector<Dimension> dimensionsOf(const Tile& tile) {
    constexpr int wordBytes = 2;
    constexpr int floatBytes = 4;
    constexpr int rotationBytes = 4;
    constexpr double none = std::numeric_limits<double>::infinity();
    const SplatReader::Meta& meta = tile.meta;
    std::vector<Dimension> dimensions;
    addAxes(dimensions, {"x", "y", "z"}, floatBytes, "floating", {tile.min, tile.max});
    addAxes(dimensions, {"red", "green", "blue"}, 1, "unsigned", meta.colour());
    dimensions.push_back({"opacity", 1, "unsigned", meta.opacity().min[0], meta.opacity().max[0]});
    addAxes(dimensions, {"scale_x", "scale_y", "scale_z"}, wordBytes, "unsigned", meta.scaleRange());
    // One word holds three components and the number of the fourth: its bounds would say nothing.
    dimensions.push_back({"rotation", rotationBytes, "unsigned", none, none});
    addAxes(dimensions, {"normal_x", "normal_y", "normal_z"}, wordBytes, "unsigned", meta.normal());
    if (meta.hasCoefficients()) {
        addAxes(dimensions, {"coefficients_red", "coefficients_green", "coefficients_blue"},
                meta.packed() ? wordBytes : floatBytes, meta.packed() ? "unsigned" : "floating",
                meta.coefficients());
    }
    return dimensions;
}

void putPointCloud(Json& properties, const Tile& tile) {
    properties["pc:count"] = tile.splats;
    properties["pc:type"] = "eopc"; // the extension's word for points derived from images
    Json schemas = Json::array();
    Json statistics = Json::array();
    for (const Dimension& dimension : dimensionsOf(tile)) {
        Json statistic = {{"name", dimension.name}, {"position", schemas.size()}, {"count", tile.splats}};
        // The bounds of no splats are infinite, and so are those of a column without any. JSON cannot express
        // that.
        if (std::isfinite(dimension.min) && std::isfinite(dimension.max)) {
            statistic["minimum"] = dimension.min;
            statistic["maximum"] = dimension.max;
        }
        schemas.push_back({{"name", dimension.name}, {"size", dimension.size}, {"type", dimension.type}});
        statistics.push_back(std::move(statistic));
    }
    properties["pc:schemas"] = std::move(schemas);
    properties["pc:statistics"] = std::move(statistics);
}

Json propertiesJson(const CatalogueItem& item) {
    const Tile& tile = item.tile;
    Json properties;
    properties["datetime"] = item.datetime;
    properties["created"] = timeText(tile.made);
    putCode(properties, item.footprint ? tile.meta.epsg : 0);
    properties["proj:bbox"] = {tile.min[0], tile.min[1], tile.min[2], tile.max[0], tile.max[1], tile.max[2]};
    putPointCloud(properties, tile);
    properties["plyconvert:guid"] = tile.meta.guid;
    properties["plyconvert:epsg"] = tile.meta.epsg;
    properties["plyconvert:offset"] = tile.meta.offset;
    properties["plyconvert:cell_size"] = {tile.meta.cellLengthX, tile.meta.cellLengthY};
    properties["plyconvert:cells"] = tile.cells;
    return properties;
}

std::string referenceTo(const fs::path& file, const CataloguePlace& place) {
    std::string relative = relativeReference(file, place.folder);
    if (place.base.empty()) {
        return relative;
    }
    const auto reference = referenceAt(place.base, relative);
    if (!reference) {
        throw Failure(ExitStatus::usage,
                      fmt::format("--base {}: {} lies above all folders of this address: write the catalogue "
                                  "into a folder that holds the datasets",
                                  place.base, relative));
    }
    return *reference;
}

Json assetJson(const fs::path& file, const CataloguePlace& place, const char* title, const char* type,
               const char* role, std::uint64_t bytes) {
    return {{"href", referenceTo(file, place)},
            {"title", title},
            {"type", type},
            {"roles", Json::array({role})},
            {"file:size", bytes}};
}

Json overviewJson(const CatalogueItem& item, const CataloguePlace& place) {
    const Overview& overview = *item.overview;
    Json asset = assetJson(overview.file, place, "Picture from above",
                           overview.isPng ? "image/png" : "image/tiff; application=geotiff", "overview",
                           overview.bytes);
    putCode(asset, item.footprint ? item.tile.meta.epsg : 0);
    asset["proj:shape"] = {overview.rows, overview.columns};
    asset["proj:transform"] = overview.transform;
    return asset;
}

Json assetsJson(const CatalogueItem& item, const CataloguePlace& place) {
    constexpr const char* binary = "application/octet-stream";
    const Tile& tile = item.tile;
    Json assets;
    // Not application/json: the document may contain infinities, which strict JSON parsers refuse.
    assets["meta"] = assetJson(tile.folder / Format::metaFile, place, "Meta document", "text/plain",
                               "metadata", tile.metaBytes);
    assets["data"] =
        assetJson(tile.folder / Format::dataFile, place, "Splats", binary, "data", tile.dataBytes);
    if (tile.meta.hasCoefficients()) {
        assets["coefficients"] = assetJson(tile.folder / Format::coefficientFile, place,
                                           "Spherical harmonics", binary, "data", tile.coefficientBytes);
    }
    assets["index"] =
        assetJson(tile.folder / Format::indexFile, place, "Cells", binary, "index", tile.indexBytes);
    if (item.overview) {
        assets["overview"] = overviewJson(item, place);
    }
    return assets;
}

Json itemJson(const CatalogueItem& item, const CataloguePlace& place) {
    Json json;
    json["type"] = "Feature";
    json["stac_version"] = "1.0.0";
    json["stac_extensions"] = {projectionSchema, pointCloudSchema};
    json["id"] = item.id;
    json["geometry"] = geometryJson(item.footprint);
    if (const auto& footprint = item.footprint) {
        json["bbox"] = {footprint->west, footprint->south, item.tile.min[2],
                        footprint->east, footprint->north, item.tile.max[2]};
    }
    json["properties"] = propertiesJson(item);
    json["links"] = Json::array();
    json["assets"] = assetsJson(item, place);
    return json;
}

// Removes exactly `digits` digits from the front of the text and returns their value; nothing when there are
// fewer.
std::optional<unsigned> takeNumber(std::string_view& text, std::size_t digits) {
    unsigned number = 0;
    if (text.size() < digits) {
        return std::nullopt;
    }
    const auto [stop, error] = std::from_chars(text.data(), text.data() + digits, number);
    if (error != std::errc() || stop != text.data() + digits) {
        return std::nullopt;
    }
    text.remove_prefix(digits);
    return number;
}

bool takeMark(std::string_view& text, std::string_view marks) {
    const bool isThere = !text.empty() && marks.find(text.front()) != std::string_view::npos;
    text.remove_prefix(isThere ? 1 : 0);
    return isThere;
}

// Removes an optional fraction of a second. False for a point without digits.
bool takeFraction(std::string_view& text) {
    if (!takeMark(text, ".")) {
        return true;
    }
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    text.remove_prefix(digits);
    return digits > 0;
}

} // namespace

std::string timeText(std::chrono::sys_seconds time) {
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(time - day);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", static_cast<int>(date.year()),
                       static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                       clock.hours().count(), clock.minutes().count(), clock.seconds().count());
}

std::optional<std::string> timeFrom(std::string_view text) {
    constexpr std::size_t dateLength = 10;
    const std::string whole(text);
    const auto year = takeNumber(text, 4);
    const bool hasMonth = takeMark(text, "-");
    const auto month = takeNumber(text, 2);
    const bool hasDay = takeMark(text, "-");
    const auto day = takeNumber(text, 2);
    if (!year || !hasMonth || !month || !hasDay || !day ||
        !std::chrono::year_month_day(std::chrono::year(static_cast<int>(*year)), std::chrono::month(*month),
                                     std::chrono::day(*day))
             .ok()) {
        return std::nullopt;
    }
    if (text.empty()) {
        return whole + "T00:00:00Z";
    }
    const bool hasTime = takeMark(text, "Tt ");
    const auto hour = takeNumber(text, 2);
    const bool hasMinute = takeMark(text, ":");
    const auto minute = takeNumber(text, 2);
    const bool hasSecond = takeMark(text, ":");
    const auto second = takeNumber(text, 2);
    const std::size_t timeStart = dateLength + 1;
    const bool isWhole = hasTime && hour && hasMinute && minute && hasSecond && second && takeFraction(text);
    if (!isWhole || *hour > 23 || *minute > 59 || *second > 59 ||
        (text != "Z" && text != "z" && text != "+00:00")) {
        return std::nullopt;
    }
    const std::size_t timeLength = whole.size() - text.size() - timeStart;
    return whole.substr(0, dateLength) + "T" + whole.substr(timeStart, timeLength) + "Z";
}

std::string catalogueText(std::vector<CatalogueItem> items, const CataloguePlace& place) {
    std::ranges::sort(items, {}, &CatalogueItem::id);
    std::string text = "{\"type\":\"FeatureCollection\",\"features\":[";
    for (std::size_t i = 0; i < items.size(); ++i) {
        // Bytes of a name that are not UTF-8 are replaced in titles; references keep them.
        text += i == 0 ? "\n" : ",\n";
        text += itemJson(items[i], place).dump(-1, ' ', false, Json::error_handler_t::replace);
    }
    return text + "\n]}\n";
}

} // namespace Tavrin::SplatProgram
