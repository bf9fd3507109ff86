// Writes the catalogue of a city: one item for each tile, in a document that geo tools open.
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

// A tile, and what its item says beyond the dataset itself.
struct CatalogueItem {
    Tile tile;
    std::string id;
    std::optional<Footprint> footprint;
    std::optional<Overview> overview;
    std::string datetime; // RFC 3339, in UTC
};

struct CataloguePlace {
    std::filesystem::path folder; // of the document: absolute, links resolved
    std::string base;             // the address of that folder; empty for relative references
};

// "2024-05-01T12:30:00Z"
std::string timeText(std::chrono::sys_seconds time);

// The same format from a date ("2024-05-01", which gives its first second) or from an RFC 3339 date and time
// in UTC. Nothing for any other text.
std::optional<std::string> timeFrom(std::string_view text);

// The document: a STAC ItemCollection, which is also a GeoJSON FeatureCollection. One item a line, ordered by
// id; docs/catalogue.md describes an item. Throws a Failure (Usage) when a tile lies so far outside the
// document's folder that place.base has too few folders for its reference.
std::string catalogueText(std::vector<CatalogueItem> items, const CataloguePlace& place);

} // namespace Tavrin::SplatProgram
