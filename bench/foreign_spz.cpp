#include "bench/foreign.h"

#include <zlib.h>

#include <fstream>
#include <stdexcept>
#if PLYCONVERT_ZSTD
#include <zstd.h>
#endif

namespace foreign {
namespace {

constexpr std::size_t arrayCount = 6;
using Arrays = std::array<std::string, arrayCount>;

std::uint32_t rotationWord(const Record& record) {
    const Rotation rotation = rotationOf(record);
    const std::size_t largest = (rotation.largest + 3) % 4; // in the order x y z w
    auto word = static_cast<std::uint32_t>(largest);
    for (std::size_t i = 0; i < 4; ++i) {
        if (i != largest) {
            const double part = rotation.parts[(i + 1) % 4];
            const auto size = static_cast<std::uint32_t>(
                std::min(511.0, std::round(std::abs(part) * std::sqrt(2.0) * 511)));
            word = word << 10 | (part < 0 ? 512u : 0u) | size;
        }
    }
    return word;
}

Arrays arraysOf(const std::vector<Record>& records, bool hasCoefficients) {
    Arrays arrays;
    for (const Record& record : records) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            const auto fixed = static_cast<std::int32_t>(std::lround(record[axis] * 4096.0f));
            arrays[0].append(reinterpret_cast<const char*>(&fixed), 3);
            arrays[2] += static_cast<char>(byteOf((0.15 * double{record[colourAt + axis]} + 0.5) * 255));
            arrays[3] += static_cast<char>(byteOf((double{record[scaleAt + axis]} + 10) * 16));
        }
        arrays[1] += static_cast<char>(byteOf(alphaOf(record) * 255));
        append(arrays[4], rotationWord(record));
        for (std::size_t k = 0; hasCoefficients && k < 15; ++k) {
            for (std::size_t channel = 0; channel < 3; ++channel) {
                const double step = k < 3 ? 8.0 : 16.0;
                const double value = double{record[restAt + 15 * channel + k]} * 128 + 128;
                arrays[5] += static_cast<char>(byteOf(std::round(value / step) * step));
            }
        }
    }
    return arrays;
}

void writeGzip(const std::string& path, const std::string& head, const Arrays& arrays) {
    gzFile file = gzopen(path.c_str(), "wb6");
    gzwrite(file, head.data(), static_cast<unsigned>(head.size()));
    for (const std::string& array : arrays) {
        gzwrite(file, array.data(), static_cast<unsigned>(array.size()));
    }
    gzclose(file);
}

#if PLYCONVERT_ZSTD
// One stream an array, behind a table of their sizes. An array without bytes has none.
void writeZstd(const std::string& path, std::string head, const Arrays& arrays) {
    std::string table;
    std::string streams;
    for (const std::string& array : arrays) {
        if (array.empty()) {
            continue;
        }
        std::string packed(ZSTD_compressBound(array.size()), '\0');
        packed.resize(
            ZSTD_compress(packed.data(), packed.size(), array.data(), array.size(), ZSTD_CLEVEL_DEFAULT));
        append(table, std::uint64_t{packed.size()});
        append(table, std::uint64_t{array.size()});
        streams += packed;
    }
    head.back() = static_cast<char>(table.size() / 16); // the number of streams
    append(head, std::uint32_t{32});                    // where the table starts
    head.append(12, '\0');
    std::ofstream(path, std::ios::binary) << head << table << streams;
}
#endif

} // namespace

void writeSpz(const std::string& path, const std::vector<Record>& records, int version, int degree) {
    const Arrays arrays = arraysOf(records, degree > 0);
    std::string head;
    append(head, std::uint32_t{0x5053474E});
    append(head, static_cast<std::uint32_t>(version));
    append(head, static_cast<std::uint32_t>(records.size()));
    head.append({static_cast<char>(degree), char{12}, char{0}, char{0}});
    if (version < 4) {
        writeGzip(path, head, arrays);
        return;
    }
#if PLYCONVERT_ZSTD
    writeZstd(path, head, arrays);
#else
    throw std::runtime_error("version 4 needs zstd");
#endif
}

} // namespace foreign
