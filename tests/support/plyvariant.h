// Writes canonical records as PLY files of other layouts.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace support {

enum class PlyOrder { canonical, alphabetical, reversed, extraBetween };
enum class PlyForm { ascii, littleEndian, bigEndian };

struct PlyVariant {
    PlyForm form = PlyForm::littleEndian;
    PlyOrder order = PlyOrder::canonical;
    const char* type = "float"; // of all columns of the splats: float, double, char, short or int32
    int degree = 3;             // 0 to 4
    bool hasNormals = true;
    bool hasListBefore = false; // an element with a list in front of the vertices
    bool hasListInside = false; // a list among the vertex properties
    const char* lineEnd = "\n"; // of the header
};

// The file of this layout. `records` have coefficients, except at degree 0. The type must be able to hold the
// values. Normals and coefficients that the file leaves out must be 0.
std::string variantFile(const PlyVariant& variant, const std::vector<float>& records);

} // namespace support
