// The catalogue of a city: one item for each tile, in a document that geo tools open.
#pragma once

#include "program/tiles/overview.h"
#include "program/tiles/tile.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatProgram {

// What an item says of a tile beyond what the dataset says.
struct CatalogueItem {
    Tile tile;
    std::string id;
    std::optional<Footprint> footprint;
    std::optional<Overview> overview;
    std::string datetime; // RFC 3339, in UTC
};

struct CataloguePlace {
    std::filesystem::path folder; // that the document stands in: absolute, links followed
    std::string base;             // the address of that folder; empty for relative references
};

// "2024-05-01T12:30:00Z"
std::string timeText(std::chrono::sys_seconds time);

// The same of a date ("2024-05-01", its first second) or of a date and time in UTC as RFC 3339 writes it.
// Nothing for any other text.
std::optional<std::string> timeFrom(std::string_view text);

// The document: a STAC ItemCollection, which is a GeoJSON FeatureCollection, an item a line, ordered by id.
// docs/catalogue.md says what an item holds. Throws a Failure (Usage) when place.base has too few folders for
// a tile that lies outside the document's folder.
std::string catalogueText(std::vector<CatalogueItem> items, const CataloguePlace& place);

} // namespace Tavrin::SplatProgram
