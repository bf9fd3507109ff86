// The texts of the meta document.
#pragma once

#include "src/cells.h"
#include "src/records.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Tavrin::GaussionSplat {

// 17 significant digits in general notation, as the C conversion %.17g prints them in the C locale.
std::string formatNumber(double value);

// The text between double quotes. Nothing is escaped.
std::string quoted(const std::string& text);

// n tab characters.
std::string tabs(int n);

// "[x, y, z]".
std::string formatVector3(double x, double y, double z);

// The values joined by ", " between brackets.
std::string formatArray(const std::vector<double>& values);

// 32 random lowercase hexadecimal digits; not a formatted UUID.
std::string generateGuid();

// The value of "boundingBox": an object of four lines, without a line end after the last.
std::string boundingBoxJson(const Vector3& bboxMin, const Vector3& bboxMax);

// The value of "attributes": nine ranges, without a line end after the last line. The position range is the
// bounding box times ten. The three "env" entries repeat the ranges of normal, shcoef and scale. Both are
// deliberate.
std::string attributesJson(const AttributeBounding& bounding, const Vector3& bboxMin, const Vector3& bboxMax);

inline constexpr const char* metaFileName = "converted_from_ply.ytr";

// What the meta document says about a dataset.
struct MetaValues {
    const Params& params;
    const AttributeBounding& bounding;
    const ChunkGrid& grid;
    Vector3 bboxMin;
    Vector3 bboxMax;
    std::uint64_t splats = 0;
    std::int32_t totalLevel = 1;
    std::uint32_t indexEntrySize = 0; // bytes
    std::string countLabel;           // the splat count in brackets
    bool compressed = true;           // the coefficients are packed
};

// The whole document, with a guid of its own. Lines end with a line feed.
std::string metaText(const MetaValues& values);

} // namespace Tavrin::GaussionSplat
