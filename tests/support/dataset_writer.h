// Writes datasets byte by byte, for tests of readers. It has its own knowledge of the layout and uses neither
// the converter nor the reader. So a test can set every byte, including wrong ones.
#pragma once

#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace DatasetWriter {

using Bytes = std::string;

inline void putWord(Bytes& bytes, std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i) {
        bytes.push_back(static_cast<char>((value >> (8 * i)) & 0xFFu));
    }
}

inline void putFloat(Bytes& bytes, float value) {
    putWord(bytes, std::bit_cast<std::uint32_t>(value), 4);
}

inline void setWord(Bytes& bytes, std::size_t at, std::uint64_t value, int width) {
    Bytes word;
    putWord(word, value, width);
    bytes.replace(at, word.size(), word);
}

// A splat as stored in the files.
struct StoredSplat {
    std::array<float, 3> position{};
    std::array<std::uint8_t, 4> colour{}; // red, green, blue, opacity
    std::array<std::uint16_t, 3> scale{};
    std::uint32_t rotation = 511u | (511u << 10) | (511u << 20) | (3u << 30); // (1, 0, 0, 0)
    std::array<std::uint16_t, 3> normal{};
    std::array<std::uint32_t, 15> coefficients{}; // packed words
};

// rot = (1, 0, 0, 0): three components of 0.5, stored as 511 of 1023.5; the largest is component 3.
inline constexpr std::uint32_t identityRotation = 511u | (511u << 10) | (511u << 20) | (3u << 30);

inline Bytes dataRecord(const StoredSplat& splat) {
    Bytes bytes;
    for (const float value : splat.position) {
        putFloat(bytes, value);
    }
    for (const std::uint8_t value : splat.colour) {
        putWord(bytes, value, 1);
    }
    for (const std::uint16_t value : splat.scale) {
        putWord(bytes, value, 2);
    }
    putWord(bytes, splat.rotation, 4);
    for (const std::uint16_t value : splat.normal) {
        putWord(bytes, value, 2);
    }
    return bytes;
}

inline Bytes packedCoefficients(const StoredSplat& splat) {
    Bytes bytes;
    for (const std::uint32_t word : splat.coefficients) {
        putWord(bytes, word, 4);
    }
    putWord(bytes, 0, 4);
    return bytes;
}

struct LevelEntry {
    std::uint32_t count;
    std::uint64_t offset;
};

inline Bytes indexEntry(std::uint32_t key, const std::vector<LevelEntry>& levels) {
    Bytes bytes;
    putWord(bytes, key, 4);
    for (const LevelEntry& level : levels) {
        putWord(bytes, level.count, 4);
        putWord(bytes, level.offset, 8);
        putWord(bytes, std::uint64_t{level.count} * 32, 4);
    }
    return bytes;
}

inline std::string number(double value) {
    if (std::isnan(value)) {
        return std::signbit(value) ? "-nan" : "nan"; // streams leave out the sign on some systems
    }
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text.precision(17);
    text << value;
    return text.str();
}

inline std::string list(const std::vector<double>& values) {
    std::string text = "[";
    for (const double value : values) {
        text += (text.size() == 1 ? "" : ", ") + number(value);
    }
    return text + "]";
}

struct Bounds {
    std::vector<double> min;
    std::vector<double> max;
};

// The meta document's values, with a small sound scene as defaults.
struct MetaFields {
    std::string guid = "0123456789abcdef0123456789abcdef";
    std::string source = "ply";
    std::string dataType = "None";
    std::uint64_t totalSplats = 0;
    int totalLevel = 1;
    double cellLengthX = 8.0;
    double cellLengthY = 4.0;
    std::vector<double> offset = {0, 0, 0};
    int epsg = 0;
    std::vector<double> shift = {0, 0, 0};
    std::vector<double> scale = {1, 1, 1};
    Bounds box = {{0, 0, 0}, {8, 4, 2}};
    std::string encoding = "COMPRESS";
    std::string fileType = "Quality";
    Bounds normal = {{-1, -1, -1}, {1, 1, 1}};
    Bounds colour = {{0, 0, 0}, {1, 1, 1}};
    Bounds coefficients = {{-0.5, -0.5, -0.5}, {0.5, 0.5, 0.5}};
    Bounds opacity = {{0}, {1}};
    Bounds scales = {{0.25, 0.25, 0.25}, {4, 4, 4}};
};

inline std::vector<double> tenfold(std::vector<double> values) {
    for (double& value : values) {
        value *= 10.0;
    }
    return values;
}

inline std::string metaText(const MetaFields& f, const std::string& lineEnd = "\n") {
    const auto quoted = [](const std::string& text) { return "\"" + text + "\""; };
    std::string text = "{\n";
    const auto key = [&text](const std::string& name, const std::string& value) {
        text += "\t\"" + name + "\": " + value + ",\n";
    };
    key("version", quoted("4.0"));
    key("guid", quoted(f.guid));
    key("name", quoted("Tavrin Splats"));
    key("description", quoted("Tavrin all right reserved"));
    key("source", quoted(f.source));
    key("dataType", quoted(f.dataType));
    key("totalSplats", std::to_string(f.totalSplats));
    key("totalLevel", std::to_string(f.totalLevel));
    key("cellLengthX", number(f.cellLengthX));
    key("cellLengthY", number(f.cellLengthY));
    key("indexDataSize", std::to_string(4 + 16 * f.totalLevel));
    key("offset", list(f.offset));
    key("epsg", std::to_string(f.epsg));
    key("shift", list(f.shift));
    key("scale", list(f.scale));
    key("splats", "[" + std::to_string(f.totalSplats) + "]");
    text += "\t\"boundingBox\": {\n\t\t\"min\": " + list(f.box.min) + ", \n\t\t\"max\": " + list(f.box.max) +
            "\n\t},\n";
    key("encoding", quoted(f.encoding));
    key("fileType", quoted(f.fileType));
    text += "\t\"attributes\": [\n";
    const auto attribute = [&](const std::string& name, const Bounds& bounds, bool last = false) {
        text += "\t\t{\n\t\t\t\"name\": " + quoted(name) + ",\n\t\t\t\"min\": " + list(bounds.min) +
                ", \n\t\t\t\"max\": " + list(bounds.max) + "\n\t\t}" + (last ? "\n" : ",\n");
    };
    attribute("position", {tenfold(f.box.min), tenfold(f.box.max)});
    attribute("normal", f.normal);
    attribute("color", f.colour);
    attribute("shcoef", f.coefficients);
    attribute("opacity", f.opacity);
    attribute("scale", f.scales);
    attribute("envnormal", f.normal);
    attribute("envshcoef", f.coefficients);
    attribute("envscale", f.scales, true);
    text += "\t]\n}\n";
    std::string result;
    for (const char c : text) {
        result += c == '\n' ? lineEnd : std::string(1, c);
    }
    return result;
}

// The four files of a dataset, each as bytes that a test may change before they are written.
struct Files {
    Bytes meta;
    Bytes data;
    Bytes index;
    Bytes coefficients;
    bool hasCoefficients = true;
};

// Five splats in one cell whose quantised values reach both ends of every range.
inline std::vector<StoredSplat> smallScene() {
    std::vector<StoredSplat> splats(5);
    for (std::size_t i = 0; i < splats.size(); ++i) {
        StoredSplat& splat = splats[i];
        const auto part = static_cast<std::uint32_t>(i); // 0 .. 4
        splat.position = {static_cast<float>(2 * i), static_cast<float>(i), static_cast<float>(i) / 2.0f};
        const auto byte = static_cast<std::uint8_t>(part == 4 ? 255 : 60 * part);
        splat.colour = {byte, byte, byte, byte};
        const auto word = static_cast<std::uint16_t>(part == 4 ? 65535 : 16000 * part);
        splat.scale = {word, word, word};
        splat.normal = {word, word, word};
        splat.rotation = identityRotation;
        for (std::uint32_t k = 0; k < 15; ++k) {
            const std::uint32_t redBlue = part == 4 ? 2047 : 500 * part + k;
            const std::uint32_t green = part == 4 ? 1023 : 250 * part + k;
            splat.coefficients[k] = redBlue | (green << 11) | (redBlue << 21);
        }
    }
    return splats;
}

inline Files oneCellFiles(const std::vector<StoredSplat>& splats, MetaFields fields = {}) {
    Files files;
    fields.totalSplats = splats.size();
    files.hasCoefficients = fields.fileType == "Quality";
    files.meta = metaText(fields);
    for (const StoredSplat& splat : splats) {
        files.data += dataRecord(splat);
        files.coefficients += files.hasCoefficients ? packedCoefficients(splat) : Bytes();
    }
    files.index = indexEntry(0, {{static_cast<std::uint32_t>(splats.size()), 0}});
    return files;
}

// A scene with a grid but only a few splats: the rest of its 1,000,001 count as left out. Cells of 30 units
// over a box of 100 x 70: 4 x 3 cells.
inline Files gridFiles(const std::vector<std::pair<std::uint32_t, std::vector<StoredSplat>>>& cells,
                       MetaFields fields = {}) {
    Files files;
    fields.totalSplats = 1'000'001;
    fields.box = {{-10, -20, 0}, {90, 50, 5}};
    fields.cellLengthX = fields.cellLengthY = 30;
    files.hasCoefficients = fields.fileType == "Quality";
    files.meta = metaText(fields);
    for (const auto& [key, splats] : cells) {
        files.index += indexEntry(key, {{static_cast<std::uint32_t>(splats.size()), files.data.size()}});
        for (const StoredSplat& splat : splats) {
            files.data += dataRecord(splat);
            files.coefficients += files.hasCoefficients ? packedCoefficients(splat) : Bytes();
        }
    }
    return files;
}

inline StoredSplat splatAt(float x, float y, float z = 1.0f) {
    StoredSplat splat;
    splat.position = {x, y, z};
    splat.rotation = identityRotation;
    // Spread over the steps, so that few values lie at an end.
    const auto word = static_cast<std::uint16_t>(30'000.0f + 300.0f * x / (1.0f + std::fabs(x) / 1000.0f));
    splat.scale = splat.normal = {word, word, word};
    return splat;
}

// Four cells, column first: (0,0) (0,2) (1,0) (3,1).
inline Files gridScene() {
    return gridFiles({{0u, {splatAt(-10, -20), splatAt(19, 9)}},
                      {2u << 16, {splatAt(-5, 45)}},
                      {1u, {splatAt(20, -20), splatAt(30, 0), splatAt(49, 9)}},
                      {3u | (1u << 16), {splatAt(89, 10)}}});
}

inline void writeFile(const std::filesystem::path& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline void writeFiles(const std::filesystem::path& folder, const Files& files) {
    std::filesystem::create_directories(folder);
    writeFile(folder / "converted_from_ply.ytr", files.meta);
    writeFile(folder / "data.bin", files.data);
    writeFile(folder / "index.bin", files.index);
    if (files.hasCoefficients) {
        writeFile(folder / "shcoef.bin", files.coefficients);
    }
}

// A new folder for each object. The destructor removes it.
class TemporaryFolder {
public:
    TemporaryFolder() {
        static int next = 0;
        path_ = std::filesystem::temp_directory_path() /
                ("plyconvert-test-" + std::to_string(::getpid()) + "-" + std::to_string(next++));
        std::filesystem::remove_all(path_);
        std::filesystem::create_directories(path_);
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

} // namespace DatasetWriter
