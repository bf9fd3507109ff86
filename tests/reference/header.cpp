#include "tests/reference/converter.h"
#include "tests/support/properties.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>

namespace reference {

namespace {

// Blanks, tabs and carriage returns separate words; other white space is part of them.
std::vector<std::string> wordsOf(const std::string& line) {
    std::vector<std::string> words;
    std::string word;
    for (const char c : line + ' ') {
        if (c != ' ' && c != '\t' && c != '\r') {
            word += c;
        } else if (!word.empty()) {
            words.push_back(word);
            word.clear();
        }
    }
    return words;
}

bool contains(const std::string& line, const char* text) {
    return line.find(text) != line.npos;
}

void applyComment(Header& header, const std::string& key, const std::string& value, bool& typeSeen,
                  bool& boundsSeen) {
    if (key == "source") {
        header.source = value;
    } else if (key == "dataType") {
        header.dataType = value;
        typeSeen = true;
    } else if (key == "epsg") {
        header.epsg = std::atoi(value.c_str());
    }
    if (key == "minx" || key == "maxx") {
        boundsSeen = true;
        if (!typeSeen) {
            header.dataType = "ytr";
        }
    }
    const std::map<std::string, Point*> vectors{{"min", &header.min},
                                                {"max", &header.max},
                                                {"offset", &header.offset},
                                                {"shift", &header.shift},
                                                {"scale", &header.scale}};
    const auto vector = vectors.find(key.substr(0, key.size() - 1));
    const std::size_t axis = std::string("xyz").find(key.back());
    if (vector != vectors.end() && axis < 3) {
        (*vector->second)[axis] = std::strtof(value.c_str(), nullptr); // single precision, widened
    }
}

} // namespace

Header readHeader(std::string_view file) {
    Header header;
    bool typeSeen = false;
    bool boundsSeen = false;
    std::size_t at = 0;
    while (at < file.size()) {
        const std::size_t end = std::min(file.find('\n', at), file.size());
        const std::string line(file.substr(at, end - at));
        at = std::min(end + 1, file.size());
        if (line == "end_header") {
            break;
        }
        const std::vector<std::string> words = wordsOf(line);
        if (words.size() != 3) {
            continue;
        }
        if (contains(line, "element")) {
            header.count = std::atoll(words[2].c_str());
        }
        if (contains(line, "comment")) {
            applyComment(header, words[1], words[2], typeSeen, boundsSeen);
        }
        if (contains(line, "property") && words[2] == "f_rest_0") {
            header.coefficients = true;
        }
    }
    if (!typeSeen && !boundsSeen) {
        header.dataType = "ply";
    }
    header.end = at;
    return header;
}

Box boxOf(const Header& header, std::string_view file) {
    Box box{header.min, header.max};
    if (std::fabs(header.min[0]) > 0.0010000000474974513 && std::fabs(header.max[0]) > 0.10000000149011612) {
        return box;
    }
    box = {}; // always contains the origin
    for (std::int64_t i = 0; i < header.count; ++i) {
        float position[3] = {};
        // The step is always that of the larger record.
        const std::uint64_t record =
            header.end + static_cast<std::uint64_t>(i) * support::floatsWith * sizeof(float);
        if (record < file.size()) {
            std::memcpy(position, file.data() + record, std::min(sizeof position, file.size() - record));
        }
        for (std::size_t axis = 0; axis < 3; ++axis) {
            const double value = position[axis];
            if (value < box.min[axis]) {
                box.min[axis] = value;
            }
            if (value > box.max[axis]) {
                box.max[axis] = value;
            }
        }
    }
    return box;
}

Grid gridOf(const Header& header, const Box& box) {
    const double extentX = box.max[0] - box.min[0];
    const double extentY = box.max[1] - box.min[1];
    Grid grid;
    grid.originX = static_cast<float>(box.min[0]);
    grid.originY = static_cast<float>(box.min[1]);
    if (header.count < 1'000'000) {
        grid.cellSizeX = static_cast<float>(extentX);
        grid.cellSizeY = static_cast<float>(extentY);
        return grid;
    }
    double side = header.count > 8'000'000 ? 15.0 : 30.0;
    if (extentX < 100.0 && extentY < 100.0) {
        side = header.count > 8'000'000 ? 10.0 : 30.0;
    } else if (header.count > 100'000'000) {
        side = 10.0;
    }
    grid.cellSizeX = static_cast<float>(side);
    grid.cellSizeY = static_cast<float>(side);
    grid.columns = static_cast<std::int32_t>((side + extentX) / side);
    grid.rows = static_cast<std::int32_t>((extentY + side) / side);
    return grid;
}

} // namespace reference
