// A converter written from the rules of the format alone: sequential, one splat at a time, in memory.
//
// It shares no code with the library and takes no care of speed or of large files; the tests compare the
// library's bytes with its own.
#pragma once

#include <array>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace reference {

using Vector = std::array<double, 3>;

// What the header states, and what follows from it.
struct Header {
    std::int64_t count = 0;
    std::uint64_t end = 0; // where the records begin
    bool coefficients = false;
    std::string dataType = "None";
    std::string source = "None";
    std::int32_t epsg = 0;
    Vector min{0.0, 0.0, 0.0}; // as stated
    Vector max{1.0, 1.0, 1.0};
    Vector offset{0.0, 0.0, 0.0};
    Vector shift{0.0, 0.0, 0.0};
    Vector scale{1.0, 1.0, 1.0};
};

Header readHeader(std::string_view file);

struct Box {
    Vector min{};
    Vector max{};
};

// The stated box, or the scanned one where the stated one does not count.
Box boxOf(const Header& header, std::string_view file);

struct Grid {
    float cellX = 0.0f;
    float cellY = 0.0f;
    float originX = 0.0f;
    float originY = 0.0f;
    std::int32_t columns = 0;
    std::int32_t rows = 0;
};

Grid gridOf(const Header& header, const Box& box);

// The values of one attribute over all splats.
struct Range {
    Vector min{infinity, infinity, infinity};
    Vector max{-infinity, -infinity, -infinity};

    void include(std::size_t axis, double value);

    static constexpr double infinity = std::numeric_limits<double>::infinity();
};

struct Ranges {
    Range normal;
    Range colour;
    Range coefficients;
    Range opacity; // the first axis
    Range scale;
};

// A decoded splat.
struct Splat {
    std::array<float, 3> position{};
    std::array<float, 3> normal{};
    std::array<float, 3> colour{};
    std::array<float, 45> rest{};
    float opacity = 0.0f;
    std::array<float, 3> scale{};
    std::array<float, 4> rotation{}; // packed: three components and the place of the largest
};

// The splats in the file's order; what lies behind its end is zeros.
std::vector<Splat> decode(const Header& header, std::string_view file, Ranges& ranges);

// The 32 bytes of data.bin and the 64 of shcoef.bin.
std::string dataRecord(const Splat& splat, const Ranges& ranges);
std::string coefficientRecord(const Splat& splat, const Ranges& ranges);

struct Dataset {
    std::string data;
    std::string coefficients; // empty without coefficients
    std::string index;
    std::string meta; // line ends as LF, question marks for the guid
};

// The conversion. With countAs, what follows from the number of splats (grid, cells, the counts of the meta
// document) is that of a scene of so many, whose other splats are not there.
Dataset convert(std::string_view file, std::int64_t countAs = 0);

// The meta document of a conversion.
std::string metaText(const Header& header, const Box& box, const Grid& grid, const Ranges& ranges);

} // namespace reference
