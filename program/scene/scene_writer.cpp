#include "program/scene/scene_writer.h"

#include "program/scene/scene_record.h"
#include "program/system/exit_status.h"
#include "program/system/interrupt.h"
#include "program/system/platform.h"
#include "source/record_properties.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <fstream>

namespace Tavrin::SplatProgram {
namespace {

constexpr std::array<const char*, 3> axes = {"x", "y", "z"};

// The shortest text that reads back as the same double. So a dataset's single-precision values survive to the
// last bit, in single and double precision.
std::string numberText(double value) {
    std::array<char, 32> buffer{};
    const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
    return std::string(buffer.data(), result.ptr);
}

bool isSinglePrecision(double value) {
    constexpr double most = std::numeric_limits<float>::max();
    return std::fabs(value) <= most && static_cast<double>(static_cast<float>(value)) == value;
}

// True for a word without characters that would end the word or the line.
bool isWord(const std::string& text) {
    return !text.empty() && std::ranges::none_of(text, [](unsigned char c) { return c <= ' ' || c == 0x7F; });
}

class HeaderWriter {
public:
    explicit HeaderWriter(const SplatReader::Meta& meta) : meta_(meta) {}

    SceneHeader write(std::uint64_t splats) {
        line("ply");
        line("format binary_little_endian 1.0");
        line("comment exported by plyconvert from a quantised dataset");
        // The meta document swaps the two keys.
        word("dataType", meta_.source);
        if (meta_.dataType != "None") {
            word("source", meta_.dataType);
        }
        point("offset", meta_.offset, 0.0);
        if (meta_.epsg != 0) {
            line(fmt::format("comment epsg {}", meta_.epsg));
        }
        point("shift", meta_.shift, 0.0);
        point("scale", meta_.scale, 1.0);
        bounds("min", meta_.boundingMin);
        bounds("max", meta_.boundingMax);
        line(fmt::format("element vertex {}", splats));
        properties();
        line("end_header");
        return std::move(header_);
    }

private:
    void line(const std::string& text) { header_.text += text + "\n"; }

    void word(const char* key, const std::string& value) {
        if (isWord(value)) {
            line(fmt::format("comment {} {}", key, value));
        } else {
            header_.remarks.push_back(
                fmt::format("the comment {} is not restored: its value is not one word", key));
        }
    }

    void number(const std::string& key, double value) {
        if (isSinglePrecision(value)) {
            line(fmt::format("comment {} {}", key, numberText(value)));
        } else {
            header_.remarks.push_back(fmt::format(
                "the comment {} is not restored: {} is not a single-precision number", key, value));
        }
    }

    void point(const std::string& name, const SplatReader::Point& values, double otherwise) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            if (values[axis] != otherwise) {
                number(name + axes[axis], values[axis]);
            }
        }
    }

    void bounds(const std::string& name, const SplatReader::Point& values) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            number(name + axes[axis], values[axis]);
        }
    }

    void properties() {
        for (const std::string& name : SplatSource::recordProperties(meta_.hasCoefficients())) {
            line("property float " + name);
        }
    }

    const SplatReader::Meta& meta_;
    SceneHeader header_;
};

class SceneFile {
public:
    explicit SceneFile(const std::filesystem::path& path) : path_(path) {
        stream_.open(path, std::ios::binary | std::ios::trunc);
        check();
    }

    void write(const void* bytes, std::size_t count) {
        const auto* from = static_cast<const char*>(bytes);
        buffer_.insert(buffer_.end(), from, from + count);
        if (buffer_.size() >= bufferBytes) {
            flush();
        }
    }

    void close() {
        flush();
        stream_.close();
        check();
    }

private:
    static constexpr std::size_t bufferBytes = 1 << 20;

    void flush() {
        stream_.write(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
        buffer_.clear();
        check();
    }

    void check() {
        if (!stream_) {
            throw Failure(ExitStatus::outputRefused,
                          fmt::format("{}: the file cannot be written: check the folder and the free disk",
                                      textFromPath(path_)));
        }
    }

    std::filesystem::path path_;
    std::ofstream stream_;
    std::vector<char> buffer_;
};

} // namespace

SceneHeader sceneHeader(const SplatReader::Meta& meta, std::uint64_t splats) {
    return HeaderWriter(meta).write(splats);
}

void writeScene(const SplatReader::Dataset& dataset, const std::vector<std::size_t>& cells,
                const std::string& header, const std::filesystem::path& path, const ScanProgress& progress) {
    static_assert(std::endian::native == std::endian::little, "records are written as they stand in memory");
    constexpr std::uint64_t progressEvery = 16384;
    SceneFile file(path);
    file.write(header.data(), header.size());
    const bool hasCoefficients = dataset.meta().hasCoefficients();
    const std::size_t recordBytes = GaussionSplat::recordLayout(hasCoefficients).floats * sizeof(float);
    std::uint64_t all = 0;
    for (const std::size_t cell : cells) {
        all += dataset.range(cell, 0).count;
    }
    std::uint64_t done = 0;
    VertexRecord record{};
    for (const std::size_t cell : cells) {
        SplatReader::RecordCursor cursor = dataset.records(dataset.range(cell, 0));
        SplatReader::RecordCursor::View view{};
        while (cursor.next(view)) {
            const SplatReader::Record stored = SplatReader::loadRecord(view.data);
            SplatReader::Splat splat = dataset.dequantiser().splat(stored);
            if (hasCoefficients) {
                dataset.dequantiser().coefficients(view.coefficients, splat);
            }
            fillRecord(splat, stored, hasCoefficients, record);
            file.write(record.data(), recordBytes);
            if (done++ % progressEvery == 0) {
                throwIfInterrupted();
                progress(static_cast<double>(done) / static_cast<double>(all));
            }
        }
    }
    file.close();
}

} // namespace Tavrin::SplatProgram
