#include "source/spz.h"

#include "src/records.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <utility>

namespace Tavrin::SplatSource {
namespace {

using namespace GaussionSplat;

constexpr int most24 = (1 << 23) - 1;
constexpr int least24 = -(1 << 23);

// What a byte means in the arrays that hold one byte a value.
struct ByteTables {
    std::array<float, 256> opacity; // logit
    std::array<float, 256> colour;  // f_dc
    std::array<float, 256> scale;   // natural logarithm

    ByteTables() {
        for (int byte = 0; byte < 256; ++byte) {
            const double share = byte / 255.0;
            // 0 and 255 are exactly 0 and 1: the logarithm gives the infinities.
            opacity[byte] = static_cast<float>(std::log(share / (1.0 - share)));
            colour[byte] = static_cast<float>((share - 0.5) / 0.15);
            scale[byte] = static_cast<float>(byte) / 16.0f - 10.0f;
        }
        opacity[255] = std::numeric_limits<float>::infinity();
    }
};

const ByteTables& byteTables() {
    static const ByteTables tables;
    return tables;
}

int signed24(const std::uint8_t* bytes) {
    const std::uint32_t word = bytes[0] | bytes[1] << 8 | static_cast<std::uint32_t>(bytes[2]) << 16;
    return static_cast<int>(word << 8) >> 8;
}

// IEEE 754 half precision, exact in single.
float halfFloat(const std::uint8_t* bytes) {
    const std::uint32_t half = bytes[0] | static_cast<std::uint32_t>(bytes[1]) << 8;
    const std::uint32_t sign = (half & 0x8000) << 16;
    const std::uint32_t exponent = half >> 10 & 0x1f;
    const std::uint32_t fraction = half & 0x3ff;
    if (exponent == 0) { // zero and subnormals: a multiple of 2^-24
        const float value = static_cast<float>(fraction) * 0x1p-24f;
        return sign != 0 ? 0.0f - value : value;
    }
    const std::uint32_t wide = exponent == 0x1f ? 0xff : exponent + 112;
    return std::bit_cast<float>(sign | wide << 23 | fraction << 13);
}

// The component that a unit quaternion leaves out; 0 where rounding has made the others too long.
float remaining(float a, float b, float c) {
    return std::sqrt(std::max(0.0f, 1.0f - (a * a + b * b + c * c)));
}

// Versions 1 and 2: x, y, z as bytes.
void readRotationBytes(const std::uint8_t* bytes, float (&wxyz)[4]) {
    for (int i = 0; i < 3; ++i) {
        wxyz[1 + i] = static_cast<float>(bytes[i]) / 127.5f - 1.0f;
    }
    wxyz[0] = remaining(wxyz[1], wxyz[2], wxyz[3]);
}

// Versions 3 and 4: the three smaller components with sign and magnitude, and which one is left out (0 x, 1
// y, 2 z, 3 w).
void readRotationWord(const std::uint8_t* bytes, float (&wxyz)[4]) {
    std::uint32_t word;
    std::memcpy(&word, bytes, sizeof word);
    const std::uint32_t left = word >> 30;
    float kept[3];
    int next = 0;
    for (std::uint32_t component = 0; component < 4; ++component) {
        if (component == left) {
            continue;
        }
        const std::uint32_t bits = word >> (20 - 10 * next) & 0x3ff;
        const float magnitude = static_cast<float>(bits & 0x1ff) / 511.0f * 0.70710678f;
        kept[next] = (bits & 0x200) != 0 ? 0.0f - magnitude : magnitude;
        wxyz[(component + 1) % 4] = kept[next];
        ++next;
    }
    wxyz[(left + 1) % 4] = remaining(kept[0], kept[1], kept[2]);
}

bool reachesTheEnds(const std::uint8_t* bytes, std::uint64_t count) {
    for (std::uint64_t i = 0; i < count; ++i) {
        const int value = signed24(bytes + 3 * i);
        if (value == most24 || value == least24) {
            return true;
        }
    }
    return false;
}

} // namespace

SpzInput::SpzInput(const std::filesystem::path& path, InputAxes axes,
                   const std::filesystem::path& scratchFolder)
    : file_(path), header_(readSpzHeader(file_)), arrays_(scratchFolder) {
    name = file_.name();
    describeSpz(header_, *this);
    const SpzContent content = unpack();
    remarks = content.remarks;
    if (header_.degree > 3) {
        remarks.push_back("coefficients of degree 4 are dropped: a dataset keeps those up to degree 3");
    }
    settleAxes(axes, content.axesCode);
}

void describeSpz(const SpzHeader& header, Input& input) {
    input.kind = fmt::format("SPZ, version {}", header.version);
    input.count = header.splats;
    input.degree = std::min(header.degree, 3);
    input.hasCoefficients = input.degree > 0;
    input.params.dataType = "ply"; // as a canonical file of these records would have it
    input.scratchBytes = header.arrayBytes();
}

void SpzInput::requireUnchanged() const {
    file_.requireUnchanged();
}

// The arrays go to the scratch file in pieces; positions are looked at on their way.
SpzContent SpzInput::unpack() {
    const std::uint64_t positionsEnd = header_.startOf(SpzArray::opacities);
    bool isWrapped = false;
    std::vector<std::uint8_t> seam; // the bytes of a value that a piece ends within
    const auto keep = [&](std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t size) {
        arrays_.write(offset, bytes, size);
        if (header_.version == 1 || offset >= positionsEnd || isWrapped) {
            return;
        }
        std::uint64_t positionBytes = std::min(size, positionsEnd - offset);
        while (!seam.empty() && positionBytes > 0) {
            seam.push_back(*bytes++);
            --positionBytes;
            if (seam.size() == 3) {
                isWrapped = reachesTheEnds(seam.data(), 1);
                seam.clear();
            }
        }
        isWrapped = isWrapped || reachesTheEnds(bytes, positionBytes / 3);
        seam.assign(bytes + positionBytes / 3 * 3, bytes + positionBytes);
    };
    SpzContent content = unpackSpz(file_, header_, keep);
    if (isWrapped) {
        content.remarks.push_back(
            fmt::format("positions reach the ends of their 24 bits ({:g} units from the origin): what lay "
                        "beyond was folded back when it was written",
                        std::ldexp(1.0, 23 - header_.fractionBits)));
    }
    return content;
}

void SpzInput::settleAxes(InputAxes axes, std::uint32_t code) {
    if (axes == InputAxes::rightUpBack || axes == InputAxes::rightDownFront) {
        const bool isUp = axes == InputAxes::rightUpBack;
        axisTurn_ = turnFromAxes(isUp ? axesRightUpBack : axesRightDownFront);
        kind += isUp ? ", axes right, up, back as chosen" : ", axes right, down, front as chosen";
        return;
    }
    if (code > mostAxesCode) {
        throw SourceError(fmt::format(
            "{}: its axes have the code {}, which is not known: state them with --axes", name, code));
    }
    axisTurn_ = turnFromAxes(code != 0 ? code : axesRightUpBack);
    kind += code != 0 ? fmt::format(", axes as it states (code {})", code)
                      : ", axes right, up, back as usual, for it states none";
}

void SpzInput::readWide(std::uint64_t first, std::uint64_t size, float* records, double* positions) const {
    constexpr std::uint64_t mostSplats = 1024; // at a time
    std::vector<std::uint8_t> bytes(std::min(size, mostSplats) * (header_.arrayBytes() / header_.splats));
    const std::size_t floats = recordLayout(hasCoefficients).floats;
    for (std::uint64_t done = 0; done < size;) {
        const std::uint64_t part = std::min(size - done, mostSplats);
        std::uint8_t* to = bytes.data();
        for (int i = 0; i < spzArrays; ++i) {
            const std::uint64_t splatBytes = header_.bytesOf(SpzArray{i});
            arrays_.read(header_.startOf(SpzArray{i}) + (first + done) * splatBytes, to, part * splatBytes);
            to += part * splatBytes;
        }
        decode(bytes.data(), part, records + done * floats);
        done += part;
    }
    copyPositions(records, floats, size, positions);
}

// Turns the arrays of `size` splats, one behind the other, into records.
void SpzInput::decode(const std::uint8_t* bytes, std::uint64_t size, float* records) const {
    const ByteTables& tables = byteTables();
    const RecordLayout& layout = recordLayout(hasCoefficients);
    std::fill_n(records, size * layout.floats, 0.0f);
    auto next = [&, array = 0]() mutable {
        const std::uint8_t* const start = bytes;
        bytes += size * header_.bytesOf(SpzArray{array++});
        return start;
    };
    decodePositions(next(), size, records);
    const std::uint8_t* const opacities = next();
    const std::uint8_t* const colours = next();
    const std::uint8_t* const scales = next();
    for (std::uint64_t i = 0; i < size; ++i) {
        float* const record = records + i * layout.floats;
        record[layout.opacity] = tables.opacity[opacities[i]];
        for (int axis = 0; axis < 3; ++axis) {
            record[colourAt + axis] = tables.colour[colours[3 * i + axis]];
            record[layout.scale + axis] = tables.scale[scales[3 * i + axis]];
        }
    }
    decodeRotations(next(), size, records);
    if (hasCoefficients) {
        decodeCoefficients(next(), size, records);
    }
}

void SpzInput::decodePositions(const std::uint8_t* bytes, std::uint64_t size, float* records) const {
    const std::size_t floats = recordLayout(hasCoefficients).floats;
    const std::uint64_t splatBytes = header_.bytesOf(SpzArray::positions);
    const float unit = std::ldexp(1.0f, -header_.fractionBits);
    for (std::uint64_t i = 0; i < size; ++i, bytes += splatBytes) {
        float xyz[3];
        for (int axis = 0; axis < 3; ++axis) {
            // 24 bits fit single precision, and the unit is a power of two: exact.
            xyz[axis] = header_.version == 1 ? halfFloat(bytes + 2 * axis)
                                             : static_cast<float>(signed24(bytes + 3 * axis)) * unit;
        }
        axisTurn_.position(xyz);
        std::copy_n(xyz, 3, records + i * floats + positionAt);
    }
}

void SpzInput::decodeRotations(const std::uint8_t* bytes, std::uint64_t size, float* records) const {
    const RecordLayout& layout = recordLayout(hasCoefficients);
    const std::uint64_t splatBytes = header_.bytesOf(SpzArray::rotations);
    for (std::uint64_t i = 0; i < size; ++i, bytes += splatBytes) {
        float wxyz[4];
        if (header_.version <= 2) {
            readRotationBytes(bytes, wxyz);
        } else {
            readRotationWord(bytes, wxyz);
        }
        axisTurn_.rotation(wxyz);
        std::copy_n(wxyz, 4, records + i * layout.floats + layout.rotation);
    }
}

// In the file red, green and blue of a coefficient are together. Records hold one channel after the other.
void SpzInput::decodeCoefficients(const std::uint8_t* bytes, std::uint64_t size, float* records) const {
    const std::size_t floats = recordLayout(hasCoefficients).floats;
    const std::uint64_t splatBytes = header_.bytesOf(SpzArray::coefficients);
    const int kept = std::min(static_cast<int>(splatBytes / 3), coefficientsPerChannel);
    for (std::uint64_t i = 0; i < size; ++i, bytes += splatBytes) {
        float* const coefficients = records + i * floats + coefficientsAt;
        for (int channel = 0; channel < 3; ++channel) {
            float* const values = coefficients + channel * coefficientsPerChannel;
            for (int k = 0; k < kept; ++k) {
                values[k] = static_cast<float>(bytes[3 * k + channel] - 128) / 128.0f;
            }
            axisTurn_.coefficients(values, kept);
        }
    }
}

} // namespace Tavrin::SplatSource
