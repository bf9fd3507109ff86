// The properties of a splat record as the tests write them: a list of their own, independent of the code
// under test.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace support {

// Floats of a record.
inline constexpr std::size_t floatsWith = 62; // with coefficients
inline constexpr std::size_t floatsWithout = 17;
inline constexpr std::size_t floatsOf(bool coefficients) {
    return coefficients ? floatsWith : floatsWithout;
}

// The names of a record's floats in their order.
inline std::vector<std::string> propertyNames(bool coefficients) {
    std::vector<std::string> names{"x", "y", "z", "nx", "ny", "nz", "f_dc_0", "f_dc_1", "f_dc_2"};
    for (int i = 0; coefficients && i < 45; ++i) {
        names.push_back("f_rest_" + std::to_string(i));
    }
    for (const char* name :
         {"opacity", "scale_0", "scale_1", "scale_2", "rot_0", "rot_1", "rot_2", "rot_3"}) {
        names.push_back(name);
    }
    return names;
}

} // namespace support
