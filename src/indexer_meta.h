// The texts of the meta document.
#pragma once

#include "src/records.h"

#include <string>
#include <vector>

namespace Tavrin::GaussionSplat {

// 17 significant digits in general notation, as the C conversion %.17g prints them, in no locale but the C
// one.
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
// bounding box times ten, and the three "env" entries repeat the ranges of normal, shcoef and scale; both are
// deliberate.
std::string attributesJson(const AttributeBounding& bounding, const Vector3& bboxMin, const Vector3& bboxMax);

} // namespace Tavrin::GaussionSplat
