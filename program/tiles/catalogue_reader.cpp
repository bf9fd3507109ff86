#include "program/tiles/catalogue_reader.h"

#include "program/system/exit_status.h"
#include "program/system/platform.h"
#include "reader/format.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <charconv>
#include <fstream>
#include <iterator>

namespace Tavrin::SplatProgram {
namespace {

using Json = nlohmann::json;
namespace fs = std::filesystem;

[[noreturn]] void refuse(const fs::path& file, const std::string& reason) {
    throw Failure(ExitStatus::inputRefused, fmt::format("{}: {}", textFromPath(file), reason));
}

Json documentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    if (!stream) {
        refuse(file, "cannot be read: check that it is a file and that you may read it");
    }
    Json document = Json::parse(text, nullptr, false);
    if (!document.is_object() || document.value("type", Json()) != "FeatureCollection" ||
        !document.value("features", Json()).is_array()) {
        refuse(file, "neither the folder of a dataset nor a catalogue: plyconvert catalogue writes one");
    }
    return document;
}

// True for a reference with a scheme before its first slash, or with a host: it names no file of this
// machine.
bool leadsElsewhere(const std::string& reference) {
    const std::size_t colon = reference.find(':');
    return reference.starts_with("//") ||
           (colon != std::string::npos && colon > 0 && colon < reference.find('/'));
}

// The reference with each %XX decoded; nothing if one is malformed or means a zero byte.
std::optional<std::string> unescaped(const std::string& reference) {
    constexpr int hexadecimal = 16;
    std::string text;
    for (std::size_t i = 0; i < reference.size(); ++i) {
        if (reference[i] != '%') {
            text += reference[i];
            continue;
        }
        unsigned value = 0;
        const char* const begin = reference.data() + i + 1;
        const bool isWhole = i + 2 < reference.size();
        if (!isWhole || std::from_chars(begin, begin + 2, value, hexadecimal).ptr != begin + 2 ||
            value == 0) {
            return std::nullopt;
        }
        text += static_cast<char>(value);
        i += 2;
    }
    return text;
}

std::optional<std::array<double, 6>> boxOf(const Json& properties) {
    const Json list = properties.is_object() ? properties.value("proj:bbox", Json()) : Json();
    std::array<double, 6> box = {};
    if (!list.is_array() || list.size() != box.size()) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < box.size(); ++i) {
        if (!list[i].is_number()) {
            return std::nullopt;
        }
        box[i] = list[i].get<double>();
    }
    return box;
}

std::string textAt(const Json& object, const char* key) {
    const Json value = object.is_object() ? object.value(key, Json()) : Json();
    return value.is_string() ? value.get<std::string>() : std::string();
}

ListedTile tileOf(const Json& feature, std::size_t number, const fs::path& file) {
    const std::string id = textAt(feature, "id");
    const std::string name = id.empty() ? fmt::format("feature {}", number) : id;
    const Json assets = feature.is_object() ? feature.value("assets", Json()) : Json();
    const Json meta = assets.is_object() ? assets.value("meta", Json()) : Json();
    const std::string reference = textAt(meta, "href");
    if (leadsElsewhere(reference)) {
        refuse(file, fmt::format("{} lies at {}, not on this machine: write the catalogue without --base to "
                                 "view it",
                                 name, reference));
    }
    const std::optional<std::string> path = unescaped(reference);
    const fs::path target = path ? pathFromText(*path) : fs::path();
    if (target.filename() != SplatReader::Format::metaFile) {
        refuse(file, fmt::format("{} names no {} as its asset \"meta\": is it a catalogue of plyconvert?",
                                 name, SplatReader::Format::metaFile));
    }
    return {name, (file.parent_path() / target.parent_path()).lexically_normal(),
            boxOf(feature.value("properties", Json()))};
}

} // namespace

std::vector<ListedTile> tilesOfCatalogue(const fs::path& file) {
    const Json document = documentOf(file);
    std::vector<ListedTile> tiles;
    for (const Json& feature : document["features"]) {
        tiles.push_back(tileOf(feature, tiles.size() + 1, file));
    }
    if (tiles.empty()) {
        refuse(file, "the catalogue names no tiles");
    }
    return tiles;
}

} // namespace Tavrin::SplatProgram
