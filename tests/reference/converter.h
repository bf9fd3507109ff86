// A converter written only from the rules of the format: sequential, one splat at a time, in memory.
//
// It shares no code with the library, and is neither fast nor made for large files. Tests compare the
// library's bytes with its own.
#pragma once

#include "tests/reference/splats.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace reference {

using Point = std::array<double, 3>;

// The content of the header.
struct Header {
    std::int64_t count = 0;
    std::uint64_t end = 0; // where the records begin
    bool coefficients = false;
    std::string dataType = "None";
    std::string source = "None";
    std::int32_t epsg = 0;
    Point min{0.0, 0.0, 0.0}; // as stated
    Point max{1.0, 1.0, 1.0};
    Point offset{0.0, 0.0, 0.0};
    Point shift{0.0, 0.0, 0.0};
    Point scale{1.0, 1.0, 1.0};
};

Header readHeader(std::string_view file);

struct Box {
    Point min{};
    Point max{};
};

// The stated box, or the scanned one if the stated one does not count.
Box boxOf(const Header& header, std::string_view file);

Grid gridOf(const Header& header, const Box& box);

// The files of a dataset.
struct Dataset {
    std::string data;
    std::string coefficients; // empty without coefficients
    std::string index;
    std::string meta; // line ends as LF, question marks for the guid
};

// The conversion. With `countAs`, grid, cells and the counts of the meta document are those of a scene of
// that many splats, of which only those of the file exist.
Dataset convert(std::string_view file, std::int64_t countAs = 0);

} // namespace reference
