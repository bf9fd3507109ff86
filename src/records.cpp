#include "src/records.h"

namespace Tavrin::GaussionSplat {

namespace {

void widenBounds(double& min, double& max, double otherMin, double otherMax) {
    if (min > otherMin) {
        min = otherMin;
    }
    if (otherMax > max) {
        max = otherMax;
    }
}

} // namespace

void widen(AttributeRange& range, const AttributeRange& other) {
    widenBounds(range.min.x, range.max.x, other.min.x, other.max.x);
    widenBounds(range.min.y, range.max.y, other.min.y, other.max.y);
    widenBounds(range.min.z, range.max.z, other.min.z, other.max.z);
}

void widenX(AttributeRange& range, const AttributeRange& other) {
    widenBounds(range.min.x, range.max.x, other.min.x, other.max.x);
}

} // namespace Tavrin::GaussionSplat
