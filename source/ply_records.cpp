#include "source/ply_records.h"

#include <array>
#include <bit>
#include <cstring>

namespace Tavrin::SplatSource {
namespace {

static_assert(std::endian::native == std::endian::little, "little-endian files are taken as they stand");

constexpr std::size_t leastRun = 8; // shorter runs are copied value by value

std::uint16_t swapped(std::uint16_t bits) {
    return static_cast<std::uint16_t>(bits << 8 | bits >> 8);
}

std::uint32_t swapped(std::uint32_t bits) {
    return bits << 24 | (bits & 0xFF00u) << 8 | (bits >> 8 & 0xFF00u) | bits >> 24;
}

std::uint64_t swapped(std::uint64_t bits) {
    return std::uint64_t{swapped(static_cast<std::uint32_t>(bits))} << 32 |
           swapped(static_cast<std::uint32_t>(bits >> 32));
}

// The bits of a value of the file.
template <typename Bits, bool isSwapped>
Bits load(const std::byte* at) {
    Bits bits;
    std::memcpy(&bits, at, sizeof bits);
    if constexpr (isSwapped && sizeof(Bits) > 1) {
        bits = swapped(bits);
    }
    return bits;
}

template <typename Number, typename Bits, bool isSwapped>
double loadAs(const std::byte* at) {
    return static_cast<double>(std::bit_cast<Number>(load<Bits, isSwapped>(at)));
}

template <bool isSwapped>
double loadNumber(const std::byte* at, Scalar type) {
    switch (type) {
    case Scalar::int8:
        return loadAs<std::int8_t, std::uint8_t, isSwapped>(at);
    case Scalar::uint8:
        return loadAs<std::uint8_t, std::uint8_t, isSwapped>(at);
    case Scalar::int16:
        return loadAs<std::int16_t, std::uint16_t, isSwapped>(at);
    case Scalar::uint16:
        return loadAs<std::uint16_t, std::uint16_t, isSwapped>(at);
    case Scalar::int32:
        return loadAs<std::int32_t, std::uint32_t, isSwapped>(at);
    case Scalar::uint32:
        return loadAs<std::uint32_t, std::uint32_t, isSwapped>(at);
    case Scalar::float32:
        return loadAs<float, std::uint32_t, isSwapped>(at);
    case Scalar::float64:
        break;
    }
    return loadAs<double, std::uint64_t, isSwapped>(at);
}

// f_dc of a colour byte: the coefficient that the basis function of degree 0 turns into the colour again.
std::array<float, 256> colourTable() {
    std::array<float, 256> table;
    for (std::size_t i = 0; i < table.size(); ++i) {
        table[i] = static_cast<float>((static_cast<double>(i) / 255.0 - 0.5) / 0.28209479177387814);
    }
    return table;
}

const std::array<float, 256> colours = colourTable();

} // namespace

RecordMap::RecordMap(const SplatLayout& layout, bool isBigEndian)
    : vertexBytes_(layout.recordBytes), recordFloats_(layout.floats()), isSwapped_(isBigEndian) {
    std::vector<Move> singles;
    for (std::size_t to = 0; to < layout.columns.size(); ++to) {
        const std::optional<PlyColumn>& column = layout.columns[to];
        const bool isColour = to >= GaussionSplat::colourAt && to < GaussionSplat::colourAt + 3;
        if (!column) {
            constants_.push_back({to, layout.constants[to]});
            continue;
        }
        const Move move = {.from = column->offset, .to = to, .type = column->type};
        if (to < 3) {
            positions_[to] = move;
        }
        if (isColour && layout.hasColourBytes) {
            colours_.push_back(move);
        } else if (column->type == Scalar::float64) {
            doubles_.push_back(move);
        } else if (column->type != Scalar::float32) {
            others_.push_back(move);
        } else if (!singles.empty() && singles.back().to + singles.back().count == to &&
                   singles.back().from + singles.back().count * sizeof(float) == move.from) {
            ++singles.back().count;
        } else {
            singles.push_back(move);
        }
    }
    for (const Move& run : singles) {
        if (run.count >= leastRun) {
            runs_.push_back(run);
            continue;
        }
        for (std::size_t i = 0; i < run.count; ++i) {
            floats_.push_back({.from = run.from + i * sizeof(float), .to = run.to + i});
        }
    }
}

template <bool isSwapped>
void RecordMap::mapAs(const std::byte* vertices, std::uint64_t count, float* records) const {
    for (std::uint64_t i = 0; i < count; ++i) {
        const std::byte* const vertex = vertices + i * vertexBytes_;
        float* const record = records + i * recordFloats_;
        for (const Move& run : runs_) {
            if constexpr (isSwapped) {
                for (std::size_t k = 0; k < run.count; ++k) {
                    const auto bits = load<std::uint32_t, true>(vertex + run.from + k * sizeof(float));
                    std::memcpy(record + run.to + k, &bits, sizeof bits);
                }
            } else {
                std::memcpy(record + run.to, vertex + run.from, run.count * sizeof(float));
            }
        }
        for (const Move& move : floats_) {
            const auto bits = load<std::uint32_t, isSwapped>(vertex + move.from);
            std::memcpy(record + move.to, &bits, sizeof bits);
        }
        for (const Move& move : doubles_) {
            const auto bits = load<std::uint64_t, isSwapped>(vertex + move.from);
            record[move.to] = static_cast<float>(std::bit_cast<double>(bits));
        }
        for (const Move& move : others_) {
            record[move.to] = static_cast<float>(loadNumber<isSwapped>(vertex + move.from, move.type));
        }
        for (const Move& move : colours_) {
            record[move.to] = colours[std::to_integer<std::size_t>(vertex[move.from])];
        }
        for (const Constant& constant : constants_) {
            record[constant.to] = constant.value;
        }
    }
}

template <bool isSwapped>
void RecordMap::positionsAs(const std::byte* vertices, std::uint64_t count, double* positions) const {
    for (std::uint64_t i = 0; i < count; ++i) {
        for (const Move& move : positions_) {
            positions[3 * i + move.to] =
                loadNumber<isSwapped>(vertices + i * vertexBytes_ + move.from, move.type);
        }
    }
}

void RecordMap::map(const std::byte* vertices, std::uint64_t count, float* records) const {
    isSwapped_ ? mapAs<true>(vertices, count, records) : mapAs<false>(vertices, count, records);
}

void RecordMap::mapPositions(const std::byte* vertices, std::uint64_t count, double* positions) const {
    isSwapped_ ? positionsAs<true>(vertices, count, positions)
               : positionsAs<false>(vertices, count, positions);
}

void RecordMap::mapInPlace(float* records, std::uint64_t count) const {
    if (!isSwapped_) {
        return;
    }
    for (std::uint64_t i = 0; i < count * recordFloats_; ++i) {
        std::uint32_t bits;
        std::memcpy(&bits, records + i, sizeof bits);
        bits = swapped(bits);
        std::memcpy(records + i, &bits, sizeof bits);
    }
}

} // namespace Tavrin::SplatSource
