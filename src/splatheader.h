// The PLY header: the quick check, the full reader with the parameters in comments, the ground grid and the
// bounding-box scan.
//
// Both readers go through the file line by line, in binary. A line ends at a line feed only; a carriage
// return before it stays part of the line. Only lines of exactly three words count. Neither reader looks at
// property types or at the order of properties.
#pragma once

#include "src/cells.h"
#include "src/records.h"

#include <cstdint>
#include <memory>
#include <string>
#include <tuple>

namespace Tavrin::GaussionSplat {

// The header of one input file. A value: copied into lists.
struct SplatHeader {
    std::string path;
    std::uint64_t fileSize = 0;   // bytes
    std::uint32_t level = 0;      // level of detail at which the file's splats are filed
    std::int64_t headerEnd = 0;   // length of the header in bytes, the offset of the first vertex record
    std::int64_t vertexCount = 0; // records, as stated; not checked against the file
    std::uint32_t recordSize = recordSizeWithoutCoefficients;
    Vector3 bboxMin;
    Vector3 bboxMax;
    Vector3 unused[3];
    bool hasShcoef = false;        // a property f_rest_0 is declared
    bool boundsFromHeader = false; // a comment minx or maxx was seen

    SplatHeader() = default;

    // Read the header of inputPath, fill params from its comments, set the bounding box and set chunkGrid.
    // The flag is ignored. Without "end_header" the file is read to its end, and headerEnd is the size of the
    // file.
    //
    // Throws std::filesystem::filesystem_error ("file_size"), and std::invalid_argument and std::out_of_range
    // for numbers. When the file cannot be opened, it writes a line to standard output and ends the process
    // with status -1.
    SplatHeader(std::string inputPath, const std::shared_ptr<Params>& params, std::int32_t flag);

    // A block of the bounding-box scan.
    struct Task {
        std::string path;
        std::uint32_t stride = 0; // bytes
        std::uint64_t count = 0;  // records
        std::uint64_t first = 0;  // index of the first record
        std::uint64_t offset = 0; // byte position of the first record
        std::uint64_t length = 0; // bytes
    };

    // The box of the splat positions, minimum then maximum, from a parallel scan of the records. Both corners
    // start at the origin, so the box always holds it. The scan strides scanStride bytes whatever the header
    // declares. Bytes beyond the end of the file read as zeros. A file that cannot be opened leaves the box
    // at the origin.
    static std::tuple<Vector3, Vector3> computeBBox(std::string path, std::int64_t vertexCount,
                                                    std::int32_t headerLength);
};

// Read the header alone: no box, no look at the records or at chunkGrid. Ends the process and throws as the
// constructor does.
SplatHeader readSplatHeader(const std::string& path, Params& params);

// True when the file can be opened and declares f_dc_0, opacity, scale_0 and rot_0. Writes "cannot open file"
// to standard output when it cannot be opened.
bool checkSplatHeader(std::string path);

// The ground grid of the conversion, process-wide. The header reader writes it; the indexer and its writers
// read it.
extern ChunkGrid chunkGrid;

// A scene of at least this many splats gets a grid of square cells; below, one cell spans the scene.
inline constexpr std::uint64_t gridVertexCount = 1'000'000;

// Whether a header's bounds count: both x bounds differ from their defaults. Otherwise the box is measured.
bool statesBounds(const Params& params);

// The grid of a scene. Below gridVertexCount the cell counts are those of before. A negative vertexCount
// counts as a very large one.
ChunkGrid gridFor(std::int64_t vertexCount, const Vector3& bboxMin, const Vector3& bboxMax,
                  const ChunkGrid& before);

// Set chunkGrid for a scene. Below gridVertexCount the cell counts keep the values of the conversion before.
void chooseGrid(std::int64_t vertexCount, const Vector3& bboxMin, const Vector3& bboxMax);

} // namespace Tavrin::GaussionSplat
