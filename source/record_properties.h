// The properties of the canonical record, by name.
#pragma once

#include "src/records.h"

#include <string>
#include <vector>

namespace Tavrin::SplatSource {

// The names of a record's floats in their order: 62 with coefficients, else 17.
inline std::vector<std::string> recordProperties(bool hasCoefficients) {
    std::vector<std::string> names = {"x", "y", "z", "nx", "ny", "nz", "f_dc_0", "f_dc_1", "f_dc_2"};
    for (std::size_t i = 0; hasCoefficients && i < GaussionSplat::coefficientFloats; ++i) {
        names.push_back("f_rest_" + std::to_string(i));
    }
    for (const char* const name :
         {"opacity", "scale_0", "scale_1", "scale_2", "rot_0", "rot_1", "rot_2", "rot_3"}) {
        names.emplace_back(name);
    }
    return names;
}

} // namespace Tavrin::SplatSource
