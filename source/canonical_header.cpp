#include "source/canonical_header.h"

#include "source/comments.h"
#include "source/ply_layout.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <utility>

namespace Tavrin::SplatSource {

bool isCommentWord(const std::string& text) {
    return !text.empty() && text.find(' ') == std::string::npos && fitsMetaText(text);
}

std::string canonicalHeader(const GaussionSplat::Params& params, bool statesBounds, std::uint64_t splats,
                            bool hasCoefficients) {
    std::string header = "ply\nformat binary_little_endian 1.0\n";
    const auto number = [&](const char* key, double value) {
        // Nine digits give every number of single precision exactly.
        header += fmt::format("comment {} {:.9g}\n", key, value);
    };
    const std::array<std::pair<const char*, double>, 6> bounds = {{{"minx", params.minx},
                                                                   {"miny", params.miny},
                                                                   {"minz", params.minz},
                                                                   {"maxx", params.maxx},
                                                                   {"maxy", params.maxy},
                                                                   {"maxz", params.maxz}}};
    for (const auto& [key, value] : bounds) {
        if (statesBounds) {
            number(key, value);
        }
    }
    const std::array<std::pair<const char*, double>, 6> places = {{{"offsetx", params.offsetx},
                                                                   {"offsety", params.offsety},
                                                                   {"offsetz", params.offsetz},
                                                                   {"shiftx", params.shiftx},
                                                                   {"shifty", params.shifty},
                                                                   {"shiftz", params.shiftz}}};
    for (const auto& [key, value] : places) {
        if (value != 0.0 || std::signbit(value)) {
            number(key, value);
        }
    }
    const std::array<std::pair<const char*, double>, 3> scales = {
        {{"scalex", params.scalex}, {"scaley", params.scaley}, {"scalez", params.scalez}}};
    for (const auto& [key, value] : scales) {
        if (value != 1.0) {
            number(key, value);
        }
    }
    if (params.epsg != 0) {
        header += fmt::format("comment epsg {}\n", params.epsg);
    }
    if (params.source != "None") {
        header += fmt::format("comment source {}\n", params.source);
    }
    if (params.dataType != (statesBounds ? "ytr" : "ply")) {
        header += fmt::format("comment dataType {}\n", params.dataType);
    }
    header += fmt::format("element vertex {}\n", splats);
    for (const std::string& name : canonicalNames(hasCoefficients)) {
        header += fmt::format("property float {}\n", name);
    }
    return header + "end_header\n";
}

} // namespace Tavrin::SplatSource
