#include "program/scene/scene_scan.h"

#include "program/scene/record_stream.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <unordered_map>

namespace Tavrin::SplatProgram {
namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
// Calls visit(record) with a pointer to the bytes of each record.
template <typename Visit>
void forEachRecord(const SplatFile& file, const ScanProgress& progress, Visit visit) {
    constexpr std::uint64_t reportEvery = 4096; // records
    RecordStream stream(file.path, file.bodyAt, file.layout.recordBytes(), file.records);
    while (const std::byte* const record = stream.next()) {
        visit(record);
        if (stream.position() % reportEvery == 0) {
            progress(static_cast<double>(stream.position()) / static_cast<double>(file.records));
        }
    }
}

std::array<float, 3> threeFloats(const std::byte* bytes) {
    std::array<float, 3> values;
    std::memcpy(values.data(), bytes, sizeof values);
    return values;
}

// NaN compares false and so leaves the range as it is.
void widen(double& min, double& max, double value) {
    if (value < min) {
        min = value;
    }
    if (value > max) {
        max = value;
    }
}

void widen(Box& box, const std::array<float, 3>& position) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        widen(box.min[axis], box.max[axis], double{position[axis]});
    }
}

constexpr Box emptyBox() {
    return {{infinity, infinity, infinity}, {-infinity, -infinity, -infinity}};
}

bool lieIn(const std::array<float, 3>& position, const Box& box) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        if (!(position[axis] >= box.min[axis] && position[axis] <= box.max[axis])) {
            return false;
        }
    }
    return true;
}

// The key's high half is the row or-ed with what of the column exceeds 16 bits, so a key can belong to
// several columns and rows. True when any of them lies in the grid.
bool isListed(std::uint32_t key, const SplatReader::Grid& grid) {
    constexpr std::int64_t half = 65536;
    const std::int64_t low = SplatReader::keyColumn(key);
    const std::int64_t high = SplatReader::keyRow(key);
    for (std::int64_t over = 0; low + over * half < grid.countX; ++over) {
        const std::int64_t row = high & ~over; // the least row that gives the rest
        if ((over & ~high) == 0 && row < grid.countY) {
            return true;
        }
    }
    return false;
}

} // namespace

SceneExtent measureScene(const SplatFile& file, const std::optional<Box>& bounds,
                         const ScanProgress& progress) {
    SceneExtent extent;
    extent.box = emptyBox();
    Box logScale = emptyBox();
    const std::size_t scaleAt = file.layout.scaleFloat() * sizeof(float);
    forEachRecord(file, progress, [&](const std::byte* record) {
        const std::array<float, 3> position = threeFloats(record);
        widen(extent.box, position);
        widen(logScale, threeFloats(record + scaleAt));
        const bool isFinite =
            std::isfinite(position[0]) && std::isfinite(position[1]) && std::isfinite(position[2]);
        extent.notFinite += isFinite ? 0 : 1;
        extent.outside += bounds && !lieIn(position, *bounds) ? 1 : 0;
    });
    for (std::size_t axis = 0; axis < 3; ++axis) {
        extent.scaleMin[axis] = std::exp(logScale.min[axis]);
        extent.scaleMax[axis] = std::exp(logScale.max[axis]);
    }
    return extent;
}

Box convertersBox(const SplatFile& file, const SceneExtent& extent) {
    constexpr std::uint64_t scanStride = 248;
    Box box = {};
    if (file.layout.recordBytes() == scanStride) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            box.min[axis] = std::min(0.0, extent.box.min[axis]);
            box.max[axis] = std::max(0.0, extent.box.max[axis]);
        }
        return box;
    }
    // Behind the end of the file the scan finds zeros, which the box holds anyway; the last record may be
    // cut.
    const std::uint64_t bodyBytes = file.size - file.bodyAt;
    const std::uint64_t whole = std::min(file.records, bodyBytes / scanStride);
    RecordStream stream(file.path, file.bodyAt, scanStride, whole);
    while (const std::byte* const at = stream.next()) {
        widen(box, threeFloats(at));
    }
    if (whole < file.records && bodyBytes % scanStride > 0) {
        std::array<std::byte, sizeof(float)* 3> cut = {};
        const std::uint64_t left = std::min<std::uint64_t>(bodyBytes % scanStride, cut.size());
        RecordStream end(file.path, file.bodyAt + whole * scanStride, left, 1);
        std::memcpy(cut.data(), end.next(), left);
        widen(box, threeFloats(cut.data()));
    }
    return box;
}

CellUse countCells(const SplatFile& file, const SplatReader::Grid& grid, const ScanProgress& progress) {
    if (grid.oneCell) {
        return {1, file.records, 0};
    }
    std::unordered_map<std::uint32_t, std::uint64_t> counts;
    forEachRecord(file, progress, [&](const std::byte* record) {
        const std::array<float, 3> position = threeFloats(record);
        ++counts[grid.keyAt(position[0], position[1])];
    });
    CellUse use;
    for (const auto& [key, count] : counts) {
        if (isListed(key, grid)) {
            ++use.cells;
            use.largest = std::max(use.largest, count);
        } else {
            use.leftOut += count;
        }
    }
    return use;
}

} // namespace Tavrin::SplatProgram
