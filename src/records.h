// The plain structures that a whole conversion passes on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

namespace Tavrin::GaussionSplat {

// A point, an extent or three per-axis values, in the units of the scene.
struct Vector3 {
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
};

// The vertex record: 32-bit floats without gaps. Positions of attributes and sizes count floats unless a name
// says bytes.
inline constexpr std::size_t positionAt = 0;
inline constexpr std::size_t normalAt = 3;
inline constexpr std::size_t colourAt = 6;
inline constexpr std::size_t coefficientsAt = 9; // 15 red, 15 green, 15 blue; only in the larger record
inline constexpr std::size_t coefficientsPerChannel = 15;
inline constexpr std::size_t coefficientFloats = 3 * coefficientsPerChannel;

// The offsets, in floats, of the attributes after the colour.
struct RecordLayout {
    std::size_t floats; // of the whole record
    std::size_t opacity;
    std::size_t scale;
    std::size_t rotation;
};
inline constexpr RecordLayout layoutWithoutCoefficients{
    .floats = 17, .opacity = 9, .scale = 10, .rotation = 13};
inline constexpr RecordLayout layoutWithCoefficients{
    .floats = layoutWithoutCoefficients.floats + coefficientFloats,
    .opacity = layoutWithoutCoefficients.opacity + coefficientFloats,
    .scale = layoutWithoutCoefficients.scale + coefficientFloats,
    .rotation = layoutWithoutCoefficients.rotation + coefficientFloats};

inline const RecordLayout& recordLayout(bool hasCoefficients) {
    return hasCoefficients ? layoutWithCoefficients : layoutWithoutCoefficients;
}

inline constexpr std::uint32_t recordSizeWithoutCoefficients =
    layoutWithoutCoefficients.floats * sizeof(float); // bytes
inline constexpr std::uint32_t recordSizeWithCoefficients = layoutWithCoefficients.floats * sizeof(float);
static_assert(recordSizeWithoutCoefficients == 68 && recordSizeWithCoefficients == 248);

// Bytes from record to record in the bounding-box scan, whatever the header declares.
inline constexpr std::uint32_t scanStride = recordSizeWithCoefficients;

// What the comment lines of the PLY header say about the scene. Created once a conversion and filled by the
// header reader. Read-only from then on, so any thread may read it. The numbers are parsed in single
// precision and widened to double; the meta document prints these doubles.
struct Params {
    double minx = 0.0; // stated bounds, scene units
    double miny = 0.0;
    double minz = 0.0;
    double maxx = 1.0;
    double maxy = 1.0;
    double maxz = 1.0;
    double offsetx = 0.0; // offset of the data in its coordinate reference system
    double offsety = 0.0;
    double offsetz = 0.0;
    std::int32_t epsg = 0; // EPSG code of the coordinate reference system, 0 when none is given
    double shiftx = 0.0;
    double shifty = 0.0;
    double shiftz = 0.0;
    double scalex = 1.0;
    double scaley = 1.0;
    double scalez = 1.0;
    std::string dataType =
        "None"; // kind of source data; "ply", "ytr" or the comment's own value once a header is read
    std::string source = "None"; // where the data came from
};

// The bounds of one attribute over all splats. The defaults are the empty range: the first value becomes both
// bounds.
struct AttributeRange {
    std::string name;
    Vector3 min{std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(),
                std::numeric_limits<double>::infinity()};
    Vector3 max{-std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
                -std::numeric_limits<double>::infinity()};
};

// The ranges of every attribute. The chunker's workers widen them under its lock; the indexer reads them
// after the workers have ended. Opacity uses x alone. The three axes of shcoef are the red, green and blue
// coefficients.
struct AttributeBounding {
    AttributeRange position{.name = "position"};
    AttributeRange normal{.name = "normal"};
    AttributeRange color{.name = "color"};
    AttributeRange shcoef{.name = "shcoef"};
    AttributeRange opacity{.name = "opacity"};
    AttributeRange scale{.name = "scale"};
    bool hasShcoef = true; // the input declares f_rest_0
};

// Widen range by other. Comparisons are strict: NaN never replaces a bound, and of two equal bounds the first
// stays. widenX serves opacity, whose y and z stay empty.
void widen(AttributeRange& range, const AttributeRange& other);
void widenX(AttributeRange& range, const AttributeRange& other);

} // namespace Tavrin::GaussionSplat
