// The meta document as a struct, read and written.
#pragma once

#include "reader/findings.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatReader {

using Point = std::array<double, 3>;

// The stated value range of one attribute. A scalar attribute ("opacity") uses the first component alone.
struct Range {
    Point min{};
    Point max{};
    std::size_t components = 3;

    bool finite(std::size_t axis) const;
    // True if no splat widened the range, which is written as [inf, -inf].
    bool empty(std::size_t axis) const;
};

struct Meta {
    std::string version;
    std::string guid;
    std::string name;
    std::string description;
    std::string source;   // as written: the kind of source data ("ply", "ytr" or a free text)
    std::string dataType; // as written: the free text that names where the data came from, "None" without one
    std::uint64_t totalSplats = 0; // records of the input, including those left out of the dataset
    std::int32_t totalLevel = 0;
    double cellLengthX = 0.0;
    double cellLengthY = 0.0;
    std::uint32_t indexDataSize = 0;
    Point offset{};
    std::int32_t epsg = 0;
    Point shift{};
    Point scale{};
    std::vector<std::uint64_t> splats;
    Point boundingMin{};
    Point boundingMax{};
    std::string encoding;
    std::string fileType;
    std::array<Range, 9> attributes; // in the order of Format::attributeNames

    bool packed() const { return encoding == "COMPRESS"; }
    bool hasCoefficients() const { return fileType == "Quality"; }
    bool oneCell() const;
    const Range& normal() const { return attributes[1]; }
    const Range& colour() const { return attributes[2]; }
    const Range& coefficients() const { return attributes[3]; }
    const Range& opacity() const { return attributes[4]; }
    const Range& scaleRange() const { return attributes[5]; }
};

// Reads the document. A missing, unknown, repeated, misplaced or wrongly typed key is an error finding of
// kind "meta-syntax" or "meta-keys". Nothing when a key cannot be used that the other files depend on.
std::optional<Meta> parseMeta(std::string_view text, Findings& findings);

// The document exactly as the converter writes it. `lineEnd` ends each line.
std::string renderMeta(const Meta& meta, std::string_view lineEnd);

// Checks relations inside the document: the repeated entries, the position range, the order of the ranges,
// the entry size, the grid cell lengths. `text` is what `meta` was parsed from; offsets in findings point
// into it.
void checkMeta(const Meta& meta, std::string_view text, Findings& findings);

} // namespace Tavrin::SplatReader
