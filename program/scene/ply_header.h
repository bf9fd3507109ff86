// The header of a PLY file, of whatever kind.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatProgram {

struct PlyProperty {
    std::string name;
    std::string type;      // as written: "float", "uchar", ...; of a list, the type of its items
    std::string countType; // empty unless the property is a list
    std::size_t line = 0;  // from 1
};

struct PlyElement {
    std::string name;
    std::uint64_t count = 0;
    std::size_t line = 0; // from 1
    std::vector<PlyProperty> properties;
};

// A PLY header, whatever kind of file it belongs to.
struct PlyHeader {
    std::string format;             // "binary_little_endian", "binary_big_endian" or "ascii"
    std::size_t formatLine = 0;     // from 1
    std::vector<std::string> lines; // every line without its line feed, a carriage return left in place
    std::vector<PlyElement> elements;
    std::uint64_t length = 0; // bytes up to and including the line feed of end_header: where the body starts
    bool endsWithCarriageReturn = false; // the last line is "end_header" and a carriage return
};

// The words of a line, separated by runs of blanks, tabs and carriage returns.
std::vector<std::string_view> wordsOf(std::string_view line);

// Reads the header of the PLY file at `path`, at most 1 MiB of it. Throws a Failure (InputRefused) that names
// the file, the line and what is wrong when it cannot be opened or is not a well-formed PLY header.
PlyHeader readPlyHeader(const std::filesystem::path& path);

} // namespace Tavrin::SplatProgram
