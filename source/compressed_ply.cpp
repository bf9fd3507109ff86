#include "source/compressed_ply.h"

#include "source/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatSource {
namespace {

using namespace GaussionSplat;

constexpr std::uint64_t chunkSplats = 256;
constexpr std::uint64_t wordBytes = 16; // of a splat: position, rotation, scale, colour
constexpr std::size_t positionRange = 0;
constexpr std::size_t scaleRange = 6;
constexpr std::size_t colourRange = 12;
constexpr std::uint64_t floatsWithoutColour = 12;
constexpr std::uint64_t floatsWithColour = 18;
constexpr double colourFactor = 0.28209479177387814; // of the coefficient of degree 0
constexpr std::array<std::string_view, floatsWithColour> chunkNames = {
    "min_x",       "min_y",       "min_z",       "max_x",       "max_y",       "max_z",
    "min_scale_x", "min_scale_y", "min_scale_z", "max_scale_x", "max_scale_y", "max_scale_z",
    "min_r",       "min_g",       "min_b",       "max_r",       "max_g",       "max_b"};
constexpr std::array<std::string_view, 4> wordNames = {"packed_position", "packed_rotation", "packed_scale",
                                                       "packed_color"};

[[noreturn]] void refuse(const RecordFile& file, const std::string& what) {
    throw SourceError(file.name() + ": " + what);
}

[[noreturn]] void refuseLine(const RecordFile& file, std::size_t line, const std::string& what) {
    throw SourceError(fmt::format("{}:{}: {}", file.name(), line, what));
}

// Checks that an element has exactly these properties, of one type and in this order.
template <typename Names>
void requireProperties(const RecordFile& file, const PlyElement& element, const Names& names,
                       std::size_t count, Scalar type) {
    for (std::size_t i = 0; i < std::max(count, element.properties.size()); ++i) {
        if (i >= element.properties.size()) {
            refuseLine(file, element.line,
                       "a compressed PLY whose element " + element.name + " has no property " +
                           std::string(names[i]));
        }
        const PlyProperty& property = element.properties[i];
        if (i >= count || property.name != names[i] || property.type != type || property.isList()) {
            refuseLine(file, property.line,
                       "property " + inQuotes(property.name) + " of type " + property.typeText +
                           " does not belong here in a compressed PLY");
        }
    }
}

// The degree that has this many coefficients a channel.
int degreeOf(std::uint64_t perChannel) {
    return perChannel == 0 ? 0 : perChannel == 3 ? 1 : perChannel == 8 ? 2 : 3;
}

double mix(float low, float high, double share) {
    return low * (1.0 - share) + high * share;
}

// Three fractions from a word with 11, 10 and 11 bits.
std::array<double, 3> shares(std::uint32_t word) {
    return {(word >> 21) / 2047.0, (word >> 11 & 0x3ff) / 1023.0, (word & 0x7ff) / 2047.0};
}

// The two highest bits name the component that is left out (0 w, 1 x, 2 y, 3 z). The others follow in order
// with 10 bits each.
void readRotation(std::uint32_t word, float* wxyz) {
    const std::uint32_t left = word >> 30;
    double squares = 0.0;
    int shift = 20;
    for (std::uint32_t i = 0; i < 4; ++i) {
        if (i == left) {
            continue;
        }
        const double value = ((word >> shift & 0x3ff) / 1023.0 - 0.5) * std::sqrt(2.0);
        wxyz[i] = static_cast<float>(value);
        squares += value * value;
        shift -= 10;
    }
    wxyz[left] = static_cast<float>(std::sqrt(std::max(0.0, 1.0 - squares)));
}

// The logit of a fraction. 0 and 1 give the infinities.
float logit(std::uint32_t byte) {
    return byte == 255 ? std::numeric_limits<float>::infinity()
                       : static_cast<float>(std::log(byte / (255.0 - byte)));
}

} // namespace

CompressedPlyInput::CompressedPlyInput(const std::filesystem::path& path, const PlyHeader& header)
    : file_(path) {
    name = file_.name();
    checkLayout(header);
    hasCoefficients = coefficientBytes_ > 0;
    degree = degreeOf(coefficientBytes_ / 3);
    kind = fmt::format("compressed PLY, {} floats a chunk", chunkFloats_);
    stated = readSceneComments(header, hasCoefficients);
    if (!stated.errors.empty()) {
        refuseLine(file_, stated.errors.front().line, stated.errors.front().text);
    }
    params = paramsOf(stated);
    boundsSeen = stated.statesBounds();
    chunksAt_ = header.length;
    wordsAt_ = chunksAt_ + (count + chunkSplats - 1) / chunkSplats * chunkFloats_ * sizeof(float);
    coefficientsAt_ = wordsAt_ + count * wordBytes;
    const std::uint64_t end = coefficientsAt_ + count * coefficientBytes_;
    if (end > file_.size()) {
        refuse(file_, "the file is cut: " + countOf(count, "packed splat", "packed splats") +
                          " end at byte " + std::to_string(end) + ", and it has " +
                          std::to_string(file_.size()) + ": copy or export it again");
    }
}

void CompressedPlyInput::checkLayout(const PlyHeader& header) {
    if (header.format != PlyFormat::binaryLittleEndian) {
        refuseLine(file_, header.formatLine,
                   "a compressed PLY is binary_little_endian, and this one says " + header.formatText);
    }
    const auto element = [&](std::size_t i, std::string_view wanted) -> const PlyElement& {
        if (i >= header.elements.size() || header.elements[i].name != wanted) {
            refuse(file_, "a compressed PLY has the elements chunk, vertex and sh, and element " +
                              std::to_string(i + 1) + " of this one is not " + std::string(wanted));
        }
        return header.elements[i];
    };
    const PlyElement& chunk = element(0, "chunk");
    const PlyElement& vertex = element(1, "vertex");
    chunkFloats_ = chunk.properties.size() > floatsWithoutColour ? floatsWithColour : floatsWithoutColour;
    requireProperties(file_, chunk, chunkNames, chunkFloats_, Scalar::float32);
    requireProperties(file_, vertex, wordNames, wordNames.size(), Scalar::uint32);
    count = vertex.count;
    if (count == 0) {
        refuseLine(file_, vertex.line, "the file has no splats");
    }
    // No file has 2^59 bytes, so the sums below stay far from the limits of 64 bits.
    constexpr std::uint64_t most = std::uint64_t{1} << 52;
    if (count > most || chunk.count != (count + chunkSplats - 1) / chunkSplats) {
        refuseLine(file_, chunk.line,
                   countOf(chunk.count, "chunk", "chunks") + " of " + std::to_string(chunkSplats) +
                       " splats for " + countOf(count, "splat", "splats"));
    }
    if (header.elements.size() > 2) {
        const PlyElement& coefficients = element(2, "sh");
        coefficientBytes_ = coefficients.properties.size();
        if (coefficientBytes_ != 0 && coefficientBytes_ != 9 && coefficientBytes_ != 24 &&
            coefficientBytes_ != 45) {
            refuseLine(file_, coefficients.line,
                       std::to_string(coefficientBytes_) +
                           " coefficients a splat: expected 9, 24 or 45, for degrees 1 to 3");
        }
        std::vector<std::string> names;
        for (std::uint64_t i = 0; i < coefficientBytes_; ++i) {
            names.push_back("f_rest_" + std::to_string(i));
        }
        requireProperties(file_, coefficients, names, names.size(), Scalar::uint8);
        if (coefficients.count != count) {
            refuseLine(file_, coefficients.line,
                       "coefficients of " + countOf(coefficients.count, "splat", "splats") + " for " +
                           countOf(count, "splat", "splats"));
        }
    }
}

void CompressedPlyInput::requireUnchanged() const {
    file_.requireUnchanged();
}

void CompressedPlyInput::readWide(std::uint64_t first, std::uint64_t size, float* records,
                                  double* positions) const {
    if (size == 0) {
        return;
    }
    const RecordLayout& layout = recordLayout(hasCoefficients);
    const std::uint64_t firstChunk = first / chunkSplats;
    const std::uint64_t chunks = (first + size - 1) / chunkSplats - firstChunk + 1;
    std::vector<float> ranges(chunks * chunkFloats_);
    std::vector<std::uint32_t> words(size * wordBytes / sizeof(std::uint32_t));
    std::vector<std::uint8_t> bytes(size * coefficientBytes_);
    file_.read(chunksAt_ + firstChunk * chunkFloats_ * sizeof(float), ranges.data(),
               ranges.size() * sizeof(float));
    file_.read(wordsAt_ + first * wordBytes, words.data(), size * wordBytes);
    file_.read(coefficientsAt_ + first * coefficientBytes_, bytes.data(), bytes.size());
    std::fill_n(records, size * layout.floats, 0.0f);
    const std::uint64_t perChannel = coefficientBytes_ / 3;
    for (std::uint64_t i = 0; i < size; ++i) {
        float* const record = records + i * layout.floats;
        const float* const range = ranges.data() + ((first + i) / chunkSplats - firstChunk) * chunkFloats_;
        const std::uint32_t* const word = words.data() + 4 * i;
        const std::array<double, 3> position = shares(word[0]);
        const std::array<double, 3> scale = shares(word[2]);
        readRotation(word[1], record + layout.rotation);
        for (std::size_t axis = 0; axis < 3; ++axis) {
            const float* const low = range + axis;
            record[positionAt + axis] =
                static_cast<float>(mix(low[positionRange], low[positionRange + 3], position[axis]));
            record[layout.scale + axis] =
                static_cast<float>(mix(low[scaleRange], low[scaleRange + 3], scale[axis]));
            const double share = (word[3] >> (24 - 8 * axis) & 0xff) / 255.0;
            const double colour =
                chunkFloats_ == floatsWithColour ? mix(low[colourRange], low[colourRange + 3], share) : share;
            record[colourAt + axis] = static_cast<float>((colour - 0.5) / colourFactor);
            const std::uint8_t* const channel = bytes.data() + i * coefficientBytes_ + axis * perChannel;
            for (std::uint64_t k = 0; k < perChannel; ++k) {
                record[coefficientsAt + axis * coefficientsPerChannel + k] =
                    static_cast<float>(channel[k] * 8.0 / 255.0 - 4.0);
            }
        }
        record[layout.opacity] = logit(word[3] & 0xff);
    }
    copyPositions(records, layout.floats, size, positions);
}

} // namespace Tavrin::SplatSource
