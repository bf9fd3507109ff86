// Parses the header of any PLY file, version 1.0.
#pragma once

#include "source/source.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatSource {

// The types of PLY values; each has two names, "float" and "float32".
enum class Scalar { int8, uint8, int16, uint16, int32, uint32, float32, float64 };

// Bytes of a value: 1, 2, 4 or 8.
std::size_t widthOf(Scalar scalar);

enum class PlyFormat { ascii, binaryLittleEndian, binaryBigEndian };

struct PlyProperty {
    std::string name;
    Scalar type = Scalar::float32;   // of a list, the type of its items
    std::optional<Scalar> countType; // of a list, an integer
    std::string typeText;            // as written
    std::string countTypeText;       // as written
    std::size_t line = 0;            // from 1

    bool isList() const { return countType.has_value(); }
};

struct PlyElement {
    std::string name;
    std::uint64_t count = 0; // at most INT64_MAX
    std::size_t line = 0;    // from 1
    std::vector<PlyProperty> properties;

    const PlyProperty* find(std::string_view property) const; // null where there is none
    // Bytes of a record; nothing when the element has a list.
    std::optional<std::uint64_t> recordBytes() const;
};

struct PlyHeader {
    PlyFormat format = PlyFormat::ascii;
    std::string formatText;         // "binary_little_endian", "binary_big_endian" or "ascii"
    std::size_t formatLine = 0;     // from 1
    std::vector<std::string> lines; // every line without its line end
    std::vector<PlyElement> elements;
    std::uint64_t length = 0; // bytes up to and including the line end of end_header: where the body starts

    const PlyElement* find(std::string_view element) const; // null where there is none
};

// Bytes from the start of a file that a header may take.
inline constexpr std::size_t longestPlyHeader = std::size_t{1} << 20;

// True when the bytes start like a PLY file.
bool looksLikePly(std::string_view start);

// Reads a header from the first bytes of a file: longestPlyHeader of them, or all. Lines end in LF or CR LF,
// or all in CR if the first does. Throws SourceError for anything outside PLY 1.0, for repeated names, and
// for counts that are not whole numbers. Its text starts with `name` and the line.
PlyHeader parsePlyHeader(std::string_view start, const std::string& name);

} // namespace Tavrin::SplatSource
