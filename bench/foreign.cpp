// foreign KIND INPUT OUTPUT: writes a canonical splat PLY file with coefficients in another form, to be
// measured.
//
// KIND is shuffled (columns in alphabetical order), degree1, doubles (positions in double, far from the
// origin), big-endian, ascii, compressed (chunk, vertex, sh), spz or spz-degree0 (version 3), or
// spz4 or spz4-degree0 (version 4).
#include "bench/foreign.h"

#include "source/ply_layout.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace foreign;
namespace GaussionSplat = Tavrin::GaussionSplat;
using Put = std::function<void(const Record&, std::string&)>;

std::vector<Record> readRecords(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    constexpr std::string_view element = "element vertex ";
    std::string line;
    std::uint64_t count = 0;
    while (std::getline(file, line) && line != "end_header") {
        if (line.starts_with(element)) {
            count = std::stoull(line.substr(element.size()));
        }
    }
    std::vector<Record> records(count);
    file.read(reinterpret_cast<char*>(records.data()), static_cast<std::streamsize>(count * sizeof(Record)));
    return records;
}

std::string header(const char* format, std::size_t count, const std::vector<std::string>& properties) {
    std::string text =
        std::string("ply\nformat ") + format + " 1.0\nelement vertex " + std::to_string(count) + "\n";
    for (const std::string& property : properties) {
        text += "property " + property + "\n";
    }
    return text + "end_header\n";
}

void writeAll(const std::string& path, const std::string& head, const std::vector<Record>& records,
              const Put& put) {
    std::ofstream file(path, std::ios::binary);
    std::string bytes = head;
    for (const Record& record : records) {
        put(record, bytes);
        if (bytes.size() > 1 << 20) {
            file << bytes;
            bytes.clear();
        }
    }
    file << bytes;
}

std::vector<std::string> typed(const std::vector<std::string>& names) {
    std::vector<std::string> properties;
    properties.reserve(names.size());
    for (const std::string& name : names) {
        properties.push_back("float " + name);
    }
    return properties;
}

void writeShuffled(const std::string& path, const std::vector<Record>& records) {
    const auto canonical = Tavrin::SplatSource::canonicalNames(true);
    std::map<std::string, std::size_t> places;
    for (std::size_t i = 0; i < canonical.size(); ++i) {
        places[canonical[i]] = i;
    }
    std::vector<std::string> names;
    std::vector<std::size_t> order;
    for (const auto& [name, place] : places) {
        names.push_back(name);
        order.push_back(place);
    }
    writeAll(path, header("binary_little_endian", records.size(), typed(names)), records,
             [&](const Record& record, std::string& bytes) {
                 for (const std::size_t place : order) {
                     append(bytes, record[place]);
                 }
             });
}

void writeDegree1(const std::string& path, const std::vector<Record>& records) {
    std::vector<std::string> names = Tavrin::SplatSource::canonicalNames(true);
    names.erase(names.begin() + restAt + 9, names.begin() + opacityAt);
    writeAll(path, header("binary_little_endian", records.size(), typed(names)), records,
             [](const Record& record, std::string& bytes) {
                 for (std::size_t i = 0; i < floats; ++i) {
                     const bool isRest = i >= restAt && i < opacityAt;
                     if (!isRest || (i - restAt) % 15 < 3) {
                         append(bytes, record[i]);
                     }
                 }
             });
}

void writeDoubles(const std::string& path, const std::vector<Record>& records) {
    std::vector<std::string> properties = typed(Tavrin::SplatSource::canonicalNames(true));
    for (std::size_t axis = 0; axis < 3; ++axis) {
        properties[axis] = std::string("double ") + "xyz"[axis];
    }
    writeAll(path, header("binary_little_endian", records.size(), properties), records,
             [](const Record& record, std::string& bytes) {
                 append(bytes, 500137.25 + double{record[0]});
                 append(bytes, 5414436.5 + double{record[1]});
                 append(bytes, double{record[2]});
                 bytes.append(reinterpret_cast<const char*>(record.data() + 3), sizeof(float) * (floats - 3));
             });
}

void writeBigEndian(const std::string& path, const std::vector<Record>& records) {
    writeAll(path,
             header("binary_big_endian", records.size(), typed(Tavrin::SplatSource::canonicalNames(true))),
             records, [](const Record& record, std::string& bytes) {
                 for (const float value : record) {
                     std::array<char, 4> raw;
                     std::memcpy(raw.data(), &value, raw.size());
                     std::ranges::reverse(raw);
                     bytes.append(raw.data(), raw.size());
                 }
             });
}

void writeAscii(const std::string& path, const std::vector<Record>& records) {
    writeAll(path, header("ascii", records.size(), typed(Tavrin::SplatSource::canonicalNames(true))), records,
             [](const Record& record, std::string& bytes) {
                 for (std::size_t i = 0; i < floats; ++i) {
                     std::array<char, 32> text;
                     char* const end = std::to_chars(text.begin(), text.end(), record[i]).ptr;
                     bytes.append(text.data(), end);
                     bytes += i + 1 < floats ? ' ' : '\n';
                 }
             });
}

std::uint32_t packed(const std::array<double, 3>& shares) {
    const auto part = [&](std::size_t axis, double most) {
        return static_cast<std::uint32_t>(std::clamp(std::round(shares[axis] * most), 0.0, most));
    };
    return part(0, 2047) << 21 | part(1, 1023) << 11 | part(2, 2047);
}

void writeCompressed(const std::string& path, const std::vector<Record>& records) {
    constexpr std::size_t chunkSplats = 256;
    constexpr std::array<std::size_t, 3> firsts = {GaussionSplat::positionAt, scaleAt, colourAt};
    const std::size_t chunks = (records.size() + chunkSplats - 1) / chunkSplats;
    std::string text = "ply\nformat binary_little_endian 1.0\nelement chunk " + std::to_string(chunks) + "\n";
    for (const char* const name : {"min_x", "min_y", "min_z", "max_x", "max_y", "max_z", "min_scale_x",
                                   "min_scale_y", "min_scale_z", "max_scale_x", "max_scale_y", "max_scale_z",
                                   "min_r", "min_g", "min_b", "max_r", "max_g", "max_b"}) {
        text += std::string("property float ") + name + "\n";
    }
    text += "element vertex " + std::to_string(records.size()) +
            "\nproperty uint packed_position\nproperty uint packed_rotation\nproperty uint "
            "packed_scale\nproperty uint "
            "packed_color\nelement sh " +
            std::to_string(records.size()) + "\n";
    for (std::size_t i = 0; i < restCount; ++i) {
        text += "property uchar f_rest_" + std::to_string(i) + "\n";
    }
    text += "end_header\n";
    std::string words;
    std::string rest;
    for (std::size_t first = 0; first < records.size(); first += chunkSplats) {
        const std::size_t end = std::min(first + chunkSplats, records.size());
        std::array<std::array<double, 3>, 3> low{};
        std::array<std::array<double, 3>, 3> high{};
        const auto value = [&](const Record& record, std::size_t kind, std::size_t axis) {
            const double stored = record[firsts[kind] + axis];
            return kind == 2 ? 0.5 + 0.28209479177387814 * stored : stored;
        };
        for (std::size_t kind = 0; kind < 3; ++kind) {
            for (std::size_t axis = 0; axis < 3; ++axis) {
                low[kind][axis] = high[kind][axis] = value(records[first], kind, axis);
                for (std::size_t i = first; i < end; ++i) {
                    low[kind][axis] = std::min(low[kind][axis], value(records[i], kind, axis));
                    high[kind][axis] = std::max(high[kind][axis], value(records[i], kind, axis));
                }
            }
            for (const auto& bound : {low[kind], high[kind]}) {
                for (const double number : bound) {
                    append(text, static_cast<float>(number));
                }
            }
        }
        const auto share = [&](const Record& record, std::size_t kind, std::size_t axis) {
            const double span = high[kind][axis] - low[kind][axis];
            return span > 0 ? (value(record, kind, axis) - low[kind][axis]) / span : 0.0;
        };
        for (std::size_t i = first; i < end; ++i) {
            const Record& record = records[i];
            const Rotation rotation = rotationOf(record);
            auto word = static_cast<std::uint32_t>(rotation.largest);
            for (std::size_t k = 0; k < 4; ++k) {
                if (k != rotation.largest) {
                    const double part = std::round((rotation.parts[k] / std::sqrt(2.0) + 0.5) * 1023);
                    word = word << 10 | static_cast<std::uint32_t>(std::clamp(part, 0.0, 1023.0));
                }
            }
            append(words, packed({share(record, 0, 0), share(record, 0, 1), share(record, 0, 2)}));
            append(words, word);
            append(words, packed({share(record, 1, 0), share(record, 1, 1), share(record, 1, 2)}));
            append(words, static_cast<std::uint32_t>(byteOf(share(record, 2, 0) * 255)) << 24 |
                              static_cast<std::uint32_t>(byteOf(share(record, 2, 1) * 255)) << 16 |
                              static_cast<std::uint32_t>(byteOf(share(record, 2, 2) * 255)) << 8 |
                              byteOf(alphaOf(record) * 255));
            for (std::size_t k = 0; k < restCount; ++k) {
                rest += static_cast<char>(byteOf((double{record[restAt + k]} / 8 + 0.5) * 256));
            }
        }
    }
    std::ofstream(path, std::ios::binary) << text << words << rest;
}

} // namespace

int main(int argc, char** argv) {
    const std::map<std::string, std::function<void(const std::string&, const std::vector<Record>&)>> kinds = {
        {"shuffled", writeShuffled},
        {"degree1", writeDegree1},
        {"doubles", writeDoubles},
        {"big-endian", writeBigEndian},
        {"ascii", writeAscii},
        {"compressed", writeCompressed},
        {"spz", [](const auto& path, const auto& records) { writeSpz(path, records, 3, 3); }},
        {"spz-degree0", [](const auto& path, const auto& records) { writeSpz(path, records, 3, 0); }},
        {"spz4", [](const auto& path, const auto& records) { writeSpz(path, records, 4, 3); }},
        {"spz4-degree0", [](const auto& path, const auto& records) { writeSpz(path, records, 4, 0); }}};
    if (argc != 4 || !kinds.contains(argv[1])) {
        std::fputs("usage: foreign KIND INPUT OUTPUT\n", stderr);
        return 1;
    }
    kinds.at(argv[1])(argv[3], readRecords(argv[2]));
    return 0;
}
