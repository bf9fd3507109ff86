// A converter written from the rules of the format alone: sequential, one splat at a time, in memory.
//
// It shares no code with the library and takes no care of speed or of large files. Tests compare the
// library's bytes with its own.
#pragma once

#include "tests/reference/splats.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace reference {

using Point = std::array<double, 3>;

// What the header states, and what follows from it.
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

// The stated box, or the scanned one where the stated one does not count.
Box boxOf(const Header& header, std::string_view file);

Grid gridOf(const Header& header, const Box& box);

// The files of a dataset.
struct Dataset {
    std::string data;
    std::string coefficients; // empty without coefficients
    std::string index;
    std::string meta; // line ends as LF, question marks for the guid
};

// The conversion. With countAs, what follows from the number of splats (grid, cells, the counts of the meta
// document) is that of a scene of so many, whose other splats are not there.
Dataset convert(std::string_view file, std::int64_t countAs = 0);

} // namespace reference
