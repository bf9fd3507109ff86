#include "program/info/info_text.h"

#include <nlohmann/json.hpp>

namespace Tavrin::SplatProgram {
namespace {

using Json = nlohmann::ordered_json;

std::string dumped(const Json& json) {
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

Json attributesJson(const std::vector<Distribution>& attributes) {
    Json list = Json::array();
    for (const Distribution& attribute : attributes) {
        Json json = {
            {"name", attribute.name}, {"values", attribute.values}, {"notFinite", attribute.notFinite}};
        if (attribute.values > 0) {
            json["smallest"] = attribute.smallest;
            json["percentile1"] = attribute.low;
            json["median"] = attribute.median;
            json["percentile99"] = attribute.high;
            json["largest"] = attribute.largest;
            json["histogram"] = attribute.bars;
        }
        list.push_back(std::move(json));
    }
    return list;
}

Json elementsJson(const SplatSource::PlyHeader& header) {
    Json list = Json::array();
    for (const SplatSource::PlyElement& element : header.elements) {
        Json properties = Json::array();
        for (const SplatSource::PlyProperty& property : element.properties) {
            Json json = {{"name", property.name}, {"type", property.typeText}};
            if (property.isList()) {
                json["countType"] = property.countTypeText;
            }
            properties.push_back(std::move(json));
        }
        list.push_back({{"name", element.name}, {"count", element.count}, {"properties", properties}});
    }
    return list;
}

Json statedJson(const SplatSource::SceneComments& stated) {
    Json json = Json::object();
    for (const auto& [key, number] : stated.numbers) {
        json[key] = number.kept;
    }
    json["epsg"] = stated.epsg;
    json["source"] = stated.source;
    json["dataType"] = stated.dataType;
    const auto box = stated.bounds();
    json["box"] = box ? Json{{"min", box->min}, {"max", box->max}} : Json(nullptr);
    return json;
}

Json cellsJson(const SplatReader::Dataset& dataset) {
    Json list = Json::array();
    for (std::size_t cell = 0; cell < dataset.cellCount(); ++cell) {
        const std::uint32_t key = dataset.cellKey(cell);
        const SplatReader::LevelRange& range = dataset.range(cell, 0);
        list.push_back({{"key", key},
                        {"column", SplatReader::keyColumn(key)},
                        {"row", SplatReader::keyRow(key)},
                        {"splats", range.count},
                        {"offset", range.offset}});
    }
    return list;
}

Json quantisersJson(const std::vector<QuantiserFacts>& quantisers) {
    Json list = Json::array();
    for (const QuantiserFacts& quantiser : quantisers) {
        list.push_back({{"name", quantiser.name},
                        {"min", quantiser.min},
                        {"max", quantiser.max},
                        {"step", quantiser.step}});
    }
    return list;
}

} // namespace

std::string sceneJson(const SceneFacts& facts) {
    Json json;
    json["path"] = facts.name;
    json["kind"] = facts.kind == "PLY" ? "ply" : facts.kind;
    json["bytes"] = facts.bytes;
    json["format"] = facts.header.formatText;
    json["headerBytes"] = facts.header.length;
    json["elements"] = elementsJson(facts.header);
    json["comments"] = facts.comments;
    json["vertices"] = facts.splats ? Json(*facts.splats) : Json(nullptr);
    json["recordBytes"] = facts.recordBytes;
    json["degree"] = facts.degree ? Json(*facts.degree) : Json(nullptr);
    json["layoutProblem"] = facts.layoutProblem.empty() ? Json(nullptr) : Json(facts.layoutProblem);
    json["bodyProblem"] = facts.bodyProblem.empty() ? Json(nullptr) : Json(facts.bodyProblem);
    json["stated"] = statedJson(facts.stated);
    json["offset"] = facts.place ? Json(facts.place->offset) : Json(nullptr);
    json["largestPositionError"] = facts.place ? Json(facts.place->largestError) : Json(nullptr);
    json["scanned"] = facts.scanned;
    json["sampled"] = facts.sampled;
    json["attributes"] = attributesJson(facts.attributes);
    return dumped(json);
}

std::string datasetJson(const DatasetFacts& facts, bool cells) {
    const SplatReader::Dataset& dataset = facts.dataset;
    const SplatReader::Meta& meta = dataset.meta();
    Json json;
    json["path"] = facts.name;
    json["kind"] = "dataset";
    json["guid"] = meta.guid;
    json["source"] = meta.dataType; // the document swaps the two keys
    json["dataType"] = meta.source;
    json["totalSplats"] = meta.totalSplats;
    json["splatsHeld"] = dataset.indexedCount();
    json["splatsLeftOut"] = dataset.leftOut();
    json["levels"] = meta.totalLevel;
    json["epsg"] = meta.epsg;
    json["offset"] = meta.offset;
    json["positionHalfStep"] = facts.positionHalfStep;
    json["shift"] = meta.shift;
    json["scale"] = meta.scale;
    json["box"] = {{"min", meta.boundingMin}, {"max", meta.boundingMax}};
    json["cellLength"] = {meta.cellLengthX, meta.cellLengthY};
    json["encoding"] = meta.encoding;
    json["fileType"] = meta.fileType;
    json["cellCount"] = dataset.cellCount();
    json["splatsInCell"] = {
        {"smallest", facts.smallestCell}, {"median", facts.medianCell}, {"largest", facts.largestCell}};
    json["bytes"] = {{"meta", facts.metaBytes},
                     {"index", facts.indexBytes},
                     {"data", facts.dataBytes},
                     {"coefficients", facts.coefficientBytes}};
    json["quantisers"] = quantisersJson(facts.quantisers);
    json["scanned"] = facts.scanned;
    json["sampled"] = facts.sampled;
    json["attributes"] = attributesJson(facts.attributes);
    if (cells) {
        json["cells"] = cellsJson(dataset);
    }
    return dumped(json);
}

} // namespace Tavrin::SplatProgram
