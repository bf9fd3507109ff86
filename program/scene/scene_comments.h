// What a header's comment lines say about the scene.
#pragma once

#include "program/scene/ply_header.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

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
    double kept = 0.0; // what the dataset keeps: single precision
    std::size_t line = 0;
};

// What the comment lines of a header say about the scene, as the converter reads them: lines of three words
// with a known key in the second; a later line overrides an earlier one.
struct SceneComments {
    std::map<std::string, StatedNumber, std::less<>> numbers; // minx ... scalez
    std::int32_t epsg = 0;
    std::string source = "None";
    std::string dataType;              // empty without such a comment
    std::vector<HeaderRemark> errors;  // what the converter would stumble over or take for something else
    std::vector<HeaderRemark> remarks; // lines it ignores though they start like one it knows

    // The value that the dataset keeps.
    double kept(std::string_view key, double otherwise) const;

    // The box that the stated bounds give; nothing when the converter does not use them and measures instead.
    // It uses them when |minx| > 0.001 and |maxx| > 0.1, with 0 and 1 in place of those that are not stated.
    std::optional<Box> bounds() const;
};

// `hasCoefficients` says what the vertex properties declare. The header's vertex element must exist.
SceneComments readSceneComments(const PlyHeader& header, bool hasCoefficients);

} // namespace Tavrin::SplatProgram
