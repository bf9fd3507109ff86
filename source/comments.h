// Reads the comment lines of a PLY header as the converter does.
#pragma once

#include "source/ply_header.h"
#include "source/source.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatSource {

using Point = std::array<double, 3>;

struct Box {
    Point min{};
    Point max{};
};

struct HeaderRemark {
    std::size_t line = 0; // from 1
    std::string text;
};

// A number of a comment line.
struct StatedNumber {
    double written = 0.0;
    double kept = 0.0; // in single precision, as the dataset keeps it
    std::size_t line = 0;
};

// What the comment lines of a header say about the scene. A line counts if it has three words and the second
// is a known key. A later line overrides an earlier one.
struct SceneComments {
    std::map<std::string, StatedNumber, std::less<>> numbers; // minx ... scalez
    std::int32_t epsg = 0;
    std::string source = "None";
    std::string dataType;              // empty without such a comment
    std::vector<HeaderRemark> errors;  // lines that the converter fails on, or reads as something else
    std::vector<HeaderRemark> remarks; // lines that it ignores although they start with a known key

    // The value that the dataset keeps.
    double kept(std::string_view key, double otherwise) const;

    // The stated box; nothing if the converter measures the box instead. It uses stated bounds if
    // |minx| > 0.001 and |maxx| > 0.1. A missing minimum is 0, a missing maximum 1.
    std::optional<Box> bounds() const;

    // A comment minx or maxx was seen.
    bool statesBounds() const;
};

// `hasCoefficients` says what the vertex properties declare. The header's vertex element must exist.
SceneComments readSceneComments(const PlyHeader& header, bool hasCoefficients);

// True for UTF-8 without control characters, quotes and backslashes. The meta document escapes nothing, so it
// can hold no other text.
bool fitsMetaText(std::string_view text);

// The parameters that the converter's header reader takes from such comments.
GaussionSplat::Params paramsOf(const SceneComments& comments);

} // namespace Tavrin::SplatSource
