// Compares the library's header check and header reader on arbitrary bytes with those of the golden tests'
// reference converter.

#include "fuzz/process_end.h"
#include "fuzz/target.h"
#include "src/blocks.h"
#include "src/splatheader.h"
#include "tests/reference/converter.h"
#include "tests/support/dataset_writer.h"
#include "tests/support/header_errors.h"

#include <algorithm>
#include <bit>
#include <stdexcept>

namespace {

using namespace Tavrin::GaussionSplat;

constexpr long long mostRecords = 5000;

struct Reading {
    SplatHeader header;
    Params params;
    ChunkGrid grid;
    std::string error; // empty when the header was read
};

Reading readHeader(const std::string& path) {
    Reading reading;
    const auto params = std::make_shared<Params>();
    chunkGrid = {};
    try {
        reading.header = SplatHeader(path, params, 1);
    } catch (const std::invalid_argument& error) {
        reading.error = std::string("invalid_argument ") + error.what();
    } catch (const std::out_of_range& error) {
        reading.error = std::string("out_of_range ") + error.what();
    }
    reading.params = *params;
    reading.grid = chunkGrid;
    return reading;
}

void requireSameBits(double found, double expected, const char* what) {
    fuzz::require(std::bit_cast<std::uint64_t>(found) == std::bit_cast<std::uint64_t>(expected),
                  std::string(what) + " is that of the reference: " + std::to_string(found) + ", " +
                      std::to_string(expected));
}

void requireSamePoint(const Vector3& found, const reference::Point& expected, const char* what) {
    requireSameBits(found.x, expected[0], what);
    requireSameBits(found.y, expected[1], what);
    requireSameBits(found.z, expected[2], what);
}

void compare(const Reading& reading, const std::string& file) {
    const reference::Header expected = reference::readHeader(file);
    const SplatHeader& header = reading.header;
    const Params& params = reading.params;
    fuzz::require(header.fileSize == file.size(), "the file size is that of the file");
    fuzz::require(header.vertexCount == expected.count, "the count is that of the reference");
    fuzz::require(static_cast<std::uint64_t>(header.headerEnd) == expected.end,
                  "the header ends where the reference says");
    fuzz::require(header.hasShcoef == expected.coefficients, "coefficients are seen as by the reference");
    fuzz::require(header.level == 0 && header.recordSize == recordSizeWithoutCoefficients,
                  "the defaults stand");
    fuzz::requireEqual(params.dataType, expected.dataType, "dataType");
    fuzz::requireEqual(params.source, expected.source, "source");
    fuzz::require(params.epsg == expected.epsg, "the EPSG code is that of the reference");
    requireSamePoint({params.minx, params.miny, params.minz}, expected.min, "min");
    requireSamePoint({params.maxx, params.maxy, params.maxz}, expected.max, "max");
    requireSamePoint({params.offsetx, params.offsety, params.offsetz}, expected.offset, "offset");
    requireSamePoint({params.shiftx, params.shifty, params.shiftz}, expected.shift, "shift");
    requireSamePoint({params.scalex, params.scaley, params.scalez}, expected.scale, "scale");
    const reference::Box box = reference::boxOf(expected, file);
    requireSamePoint(header.bboxMin, box.min, "the lower corner");
    requireSamePoint(header.bboxMax, box.max, "the upper corner");
    if (header.vertexCount >= 0) { // the grid takes a negative count for a very large one
        const reference::Grid grid = reference::gridOf(expected, box);
        requireSameBits(reading.grid.cellSizeX, grid.cellSizeX, "cellSizeX");
        requireSameBits(reading.grid.cellSizeY, grid.cellSizeY, "cellSizeY");
        requireSameBits(reading.grid.originX, grid.originX, "originX");
        requireSameBits(reading.grid.originY, grid.originY, "originY");
        fuzz::require(reading.grid.cellCountX == 0 && reading.grid.cellCountY == 0, "the counts are kept");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string file(reinterpret_cast<const char*>(data), size);
    if (!fuzz::statesAtMost(file, mostRecords)) {
        return -1;
    }
    blockSplats = 256; // several blocks
    const std::filesystem::path path = fuzz::scratch() / "scene.ply";
    DatasetWriter::writeFile(path, file);
    const bool accepted = checkSplatHeader(path);
    fuzz::require(checkSplatHeader(path) == accepted, "the check says the same twice");
    const Reading reading = readHeader(path);
    const bool isDocumented =
        reading.error.empty() ||
        std::ranges::find(support::headerErrors, reading.error) != support::headerErrors.end();
    fuzz::require(isDocumented, "the error is documented: " + reading.error);
    fuzz::requireEqual(readHeader(path).error, reading.error, "the error of a second reading");
    if (reading.error.empty()) {
        compare(reading, file);
    }
    return 0;
}
