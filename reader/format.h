// The dataset's fixed numbers, in one place. docs/format.md states the same numbers; a test compares the two.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Tavrin::SplatReader::Format {

inline constexpr std::string_view metaFile = "converted_from_ply.ytr";
inline constexpr std::string_view dataFile = "data.bin";
inline constexpr std::string_view coefficientFile = "shcoef.bin";
inline constexpr std::string_view indexFile = "index.bin";

inline constexpr std::string_view version = "4.0";
inline constexpr std::string_view name = "Tavrin Splats";
inline constexpr std::string_view description = "Tavrin all right reserved";

// data.bin: byte offsets inside a record.
inline constexpr std::uint32_t recordSize = 32;
inline constexpr std::size_t positionOffset = 0;  // f32 x 3
inline constexpr std::size_t colourOffset = 12;   // u8 x 3
inline constexpr std::size_t opacityOffset = 15;  // u8
inline constexpr std::size_t scaleOffset = 16;    // u16 x 3
inline constexpr std::size_t rotationOffset = 22; // u32, unaligned
inline constexpr std::size_t normalOffset = 26;   // u16 x 3

// shcoef.bin: one record a splat, in one of two forms.
inline constexpr std::size_t coefficientsPerChannel = 15;
inline constexpr std::uint32_t packedCoefficientSize = 64; // "COMPRESS": 15 words, then 4 zero bytes
inline constexpr std::uint32_t rawCoefficientSize = 192;   // "DEFAULT": 45 f32, then 12 bytes without meaning
inline constexpr std::size_t packedPaddingOffset = 60;
inline constexpr std::size_t rawPaddingOffset = 180;

// index.bin: an entry is a key and one range a level.
inline constexpr std::uint32_t indexKeySize = 4;
inline constexpr std::uint32_t indexLevelSize = 16; // u32 count, u64 offset, u32 size

// Quantiser factors: a value in [0, 1] times the factor, truncated.
inline constexpr double byteFactor = 255.0;      // colour, opacity
inline constexpr double wordFactor = 65535.5;    // scale, normal
inline constexpr double rotationFactor = 1023.5; // three components of the rotation
inline constexpr double redBlueFactor = 2047.5;  // coefficients, 11 bits
inline constexpr double greenFactor = 1023.5;    // coefficients, 10 bits
inline constexpr std::uint32_t byteMaximum = 255;
inline constexpr std::uint32_t wordMaximum = 65535;
inline constexpr std::uint32_t rotationMaximum = 1023;
inline constexpr std::uint32_t redBlueMaximum = 2047;
inline constexpr std::uint32_t greenMaximum = 1023;

// A rotation component c other than the largest is stored as c * rotationGain + 0.5.
inline constexpr double rotationGain = 1.4142135 * 0.5;

// The zeroth-order spherical-harmonic constant: colour = coefficient * colourGain + 0.5.
inline constexpr float colourGain = 0.2820948f;

// A scene of more splats than this is divided into grid cells. A scene of at most this many is a single cell
// with key 0.
inline constexpr std::uint64_t oneCellMaximum = 1'000'000;

// The "position" range is the bounding box times this.
inline constexpr double positionRangeFactor = 10.0;

inline constexpr std::array<std::string_view, 20> metaKeys = {
    "version",    "guid",        "name",        "description",   "source",   "dataType",  "totalSplats",
    "totalLevel", "cellLengthX", "cellLengthY", "indexDataSize", "offset",   "epsg",      "shift",
    "scale",      "splats",      "boundingBox", "encoding",      "fileType", "attributes"};

inline constexpr std::array<std::string_view, 9> attributeNames = {
    "position", "normal", "color", "shcoef", "opacity", "scale", "envnormal", "envshcoef", "envscale"};

// For each attribute the index of the one that it repeats, or its own index.
inline constexpr std::array<std::size_t, 9> attributeRepeats = {0, 1, 2, 3, 4, 5, 1, 3, 5};

} // namespace Tavrin::SplatReader::Format
