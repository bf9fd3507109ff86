// PLY files of every layout that stand for given canonical records.
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

// The file of that form for records with coefficients, at degree 0 without. Values must be ones that the type
// holds; normals and coefficients that the file lacks must be 0.
std::string variantFile(const PlyVariant& variant, const std::vector<float>& records);

} // namespace support
