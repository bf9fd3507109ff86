#include "src/splatheader.h"

#include "src/conversions.h"
#include "src/platform.h"
#include "src/splatheader_lines.h"
#include "src/splatheader_numbers.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string_view>
#include <system_error>

namespace Tavrin::GaussionSplat {

ChunkGrid chunkGrid;

namespace {

using Words = std::array<std::string_view, 3>;

constexpr std::string_view endHeader = "end_header";

// The words of a line, separated by runs of blanks, tabs and carriage returns. Empty unless there are exactly
// three.
std::optional<Words> threeWords(std::string_view line) {
    constexpr std::string_view whiteSpace = " \t\r";
    Words words;
    std::size_t count = 0;
    for (std::size_t at = line.find_first_not_of(whiteSpace); at != line.npos;
         at = line.find_first_not_of(whiteSpace, at)) {
        if (count == words.size()) {
            return std::nullopt;
        }
        const std::size_t end = std::min(line.find_first_of(whiteSpace, at), line.size());
        words[count++] = line.substr(at, end - at);
        at = end;
    }
    return count == words.size() ? std::optional(words) : std::nullopt;
}

// The three words of a line if it contains keyword anywhere and has exactly three words, else nothing.
std::optional<Words> wordsOf(std::string_view line, std::string_view keyword) {
    if (line.find(keyword) == line.npos) {
        return std::nullopt;
    }
    return threeWords(line);
}

struct FloatKey {
    std::string_view key;
    double Params::*field;
};

constexpr FloatKey floatKeys[] = {
    {"minx", &Params::minx},       {"miny", &Params::miny},       {"minz", &Params::minz},
    {"maxx", &Params::maxx},       {"maxy", &Params::maxy},       {"maxz", &Params::maxz},
    {"offsetx", &Params::offsetx}, {"offsety", &Params::offsety}, {"offsetz", &Params::offsetz},
    {"shiftx", &Params::shiftx},   {"shifty", &Params::shifty},   {"shiftz", &Params::shiftz},
    {"scalex", &Params::scalex},   {"scaley", &Params::scaley},   {"scalez", &Params::scalez},
};

// What one reading of a header keeps in addition to the header itself.
struct HeaderReading {
    SplatHeader& header;
    Params& params;
    bool dataTypeSeen = false;
    bool boundsSeen = false;

    void applyComment(std::string_view key, std::string_view value) {
        if (key == "source") {
            params.source = value;
        } else if (key == "dataType") {
            params.dataType = value;
            dataTypeSeen = true;
        } else if (key == "epsg") {
            params.epsg = parseInt32(value);
        } else {
            applyFloat(key, value);
        }
    }

    void applyLine(std::string_view line) {
        if (const auto words = wordsOf(line, "element")) {
            header.vertexCount = parseInt64((*words)[2]);
        }
        if (const auto words = wordsOf(line, "comment")) {
            applyComment((*words)[1], (*words)[2]);
        }
        if (const auto words = wordsOf(line, "property")) {
            header.hasShcoef = header.hasShcoef || (*words)[2] == "f_rest_0";
        }
    }

private:
    void applyFloat(std::string_view key, std::string_view value) {
        for (const FloatKey& entry : floatKeys) {
            if (entry.key != key) {
                continue;
            }
            if (key == "minx" || key == "maxx") {
                if (!dataTypeSeen) {
                    params.dataType = "ytr";
                }
                boundsSeen = true;
            }
            params.*entry.field = parseFloat(value);
            return;
        }
    }
};

LineReader openInput(const std::string& path) {
    LineReader file(path);
    if (!file.isOpen()) {
        std::cout << "cannot open file" << std::endl;
    }
    return file;
}

std::uint64_t fileSizeOf(const std::string& path) {
    const std::filesystem::path file = nativePath(path);
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(file, error);
    if (error) {
        throw std::filesystem::filesystem_error("file_size", file, error);
    }
    return size;
}

} // namespace

bool checkSplatHeader(std::string path) {
    LineReader file = openInput(path);
    if (!file.isOpen()) {
        return false;
    }
    constexpr std::string_view required[] = {"f_dc_0", "opacity", "scale_0", "rot_0"};
    bool found[std::size(required)] = {};
    for (std::string line; file.next(line) && line != endHeader;) {
        const auto words = wordsOf(line, "property");
        for (std::size_t i = 0; words && i < std::size(required); ++i) {
            found[i] = found[i] || (*words)[2] == required[i];
        }
    }
    return found[0] && found[1] && found[2] && found[3];
}

// The limits are single-precision constants. A scene that really starts at x = 0 is scanned, too.
bool statesBounds(const Params& params) {
    return std::abs(params.minx) > double{0.001f} && std::abs(params.maxx) > double{0.1f};
}

SplatHeader readSplatHeader(const std::string& path, Params& params) {
    SplatHeader header;
    header.fileSize = fileSizeOf(path);
    LineReader file = openInput(path);
    if (!file.isOpen()) {
        endProcess(-1);
    }
    HeaderReading reading{header, params};
    for (std::string line; file.next(line) && line != endHeader;) {
        reading.applyLine(line);
    }
    if (!reading.dataTypeSeen && !reading.boundsSeen) {
        params.dataType = "ply";
    }
    header.path = path;
    header.headerEnd = file.position();
    header.boundsFromHeader = reading.boundsSeen;
    return header;
}

SplatHeader::SplatHeader(std::string inputPath, const std::shared_ptr<Params>& params, std::int32_t)
    : SplatHeader(readSplatHeader(inputPath, *params)) {
    if (statesBounds(*params)) {
        bboxMin = {params->minx, params->miny, params->minz};
        bboxMax = {params->maxx, params->maxy, params->maxz};
    } else {
        std::tie(bboxMin, bboxMax) = computeBBox(path, vertexCount, static_cast<std::int32_t>(headerEnd));
    }
    chooseGrid(vertexCount, bboxMin, bboxMax);
}

namespace {

// Side of the square cells, in scene units, for a scene of gridVertexCount splats or more.
double cellSize(std::uint64_t vertexCount, double extentX, double extentY) {
    constexpr std::uint64_t manySplats = 8'000'000;
    if (extentX < 100.0 && extentY < 100.0) {
        return vertexCount > manySplats ? 10.0 : 30.0;
    }
    if (vertexCount > 100'000'000) {
        return 10.0;
    }
    return vertexCount > manySplats ? 15.0 : 30.0;
}

} // namespace

ChunkGrid gridFor(std::int64_t vertexCount, const Vector3& bboxMin, const Vector3& bboxMax,
                  const ChunkGrid& before) {
    ChunkGrid grid = before;
    const double extentX = bboxMax.x - bboxMin.x;
    const double extentY = bboxMax.y - bboxMin.y;
    const auto count = static_cast<std::uint64_t>(vertexCount);
    grid.originX = static_cast<float>(bboxMin.x);
    grid.originY = static_cast<float>(bboxMin.y);
    if (count < gridVertexCount) {
        grid.cellSizeX = static_cast<float>(extentX);
        grid.cellSizeY = static_cast<float>(extentY);
        return grid;
    }
    const double size = cellSize(count, extentX, extentY);
    grid.cellSizeX = static_cast<float>(size);
    grid.cellSizeY = static_cast<float>(size);
    grid.cellCountX = static_cast<std::int32_t>(truncateToBits((size + extentX) / size));
    grid.cellCountY = static_cast<std::int32_t>(truncateToBits((extentY + size) / size));
    return grid;
}

void chooseGrid(std::int64_t vertexCount, const Vector3& bboxMin, const Vector3& bboxMax) {
    chunkGrid = gridFor(vertexCount, bboxMin, bboxMax, chunkGrid);
}

} // namespace Tavrin::GaussionSplat
