#pragma once

#include "program/scene/scene_comments.h"
#include "program/scene/splat_layout.h"
#include "reader/grid.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>

namespace Tavrin::SplatProgram {

// Where the records of a splat PLY lie.
struct SplatFile {
    std::filesystem::path path;
    std::uint64_t bodyAt = 0;  // byte offset of the first record
    std::uint64_t size = 0;    // bytes of the whole file
    std::uint64_t records = 0; // as declared, all of them in the file
    SplatLayout layout;
};

// Called now and then with the share of the pass that is done, 0 to 1.
using ScanProgress = std::function<void(double)>;

// What one pass over all records finds.
struct SceneExtent {
    Box box;                     // of the positions, coordinates that are not a number left out
    Point scaleMin{};            // smallest and largest linear scale by axis, in scene units
    Point scaleMax{};            //
    std::uint64_t notFinite = 0; // splats with a coordinate that is infinite or not a number
    std::uint64_t outside = 0;   // splats outside `bounds`
};

// `bounds` are the stated ones, as far as they are used. Throws a Failure when the file cannot be read or an
// interrupt was noted.
SceneExtent measureScene(const SplatFile& file, const std::optional<Box>& bounds,
                         const ScanProgress& progress);

// The box that the converter measures when the header states none: it steps by 248 bytes whatever the
// records' size, and its box always holds the origin.
Box convertersBox(const SplatFile& file, const SceneExtent& extent);

// How a scene falls into ground cells.
struct CellUse {
    std::uint64_t cells = 0;   // occupied ones that the dataset lists
    std::uint64_t largest = 0; // splats in the fullest
    std::uint64_t leftOut = 0; // splats in no cell of the grid
};

CellUse countCells(const SplatFile& file, const SplatReader::Grid& grid, const ScanProgress& progress);

} // namespace Tavrin::SplatProgram
