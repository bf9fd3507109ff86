#include "program/info/scene_facts.h"

#include "program/scene/record_stream.h"
#include "program/scene/splat_layout.h"
#include "program/system/exit_status.h"
#include "program/system/platform.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <map>

namespace Tavrin::SplatProgram {
namespace {

enum class Scalar { int8, uint8, int16, uint16, int32, uint32, float32, float64 };

std::optional<Scalar> scalarOf(const PlyProperty& property) {
    static const std::map<std::string, Scalar, std::less<>> scalars = {
        {"char", Scalar::int8},      {"int8", Scalar::int8},       {"uchar", Scalar::uint8},
        {"uint8", Scalar::uint8},    {"short", Scalar::int16},     {"int16", Scalar::int16},
        {"ushort", Scalar::uint16},  {"uint16", Scalar::uint16},   {"int", Scalar::int32},
        {"int32", Scalar::int32},    {"uint", Scalar::uint32},     {"uint32", Scalar::uint32},
        {"float", Scalar::float32},  {"float32", Scalar::float32}, {"double", Scalar::float64},
        {"float64", Scalar::float64}};
    const auto found = scalars.find(property.type);
    return property.countType.empty() && found != scalars.end() ? std::optional(found->second) : std::nullopt;
}

std::uint64_t widthOf(Scalar scalar) {
    switch (scalar) {
    case Scalar::int8:
    case Scalar::uint8:
        return 1;
    case Scalar::int16:
    case Scalar::uint16:
        return 2;
    case Scalar::int32:
    case Scalar::uint32:
    case Scalar::float32:
        return 4;
    case Scalar::float64:
        break;
    }
    return 8;
}

template <typename Number>
double loadAs(const std::byte* at) {
    static_assert(std::endian::native == std::endian::little, "the file's numbers are taken as they stand");
    Number value;
    std::memcpy(&value, at, sizeof value);
    return static_cast<double>(value);
}

double load(Scalar scalar, const std::byte* at) {
    switch (scalar) {
    case Scalar::int8:
        return loadAs<std::int8_t>(at);
    case Scalar::uint8:
        return loadAs<std::uint8_t>(at);
    case Scalar::int16:
        return loadAs<std::int16_t>(at);
    case Scalar::uint16:
        return loadAs<std::uint16_t>(at);
    case Scalar::int32:
        return loadAs<std::int32_t>(at);
    case Scalar::uint32:
        return loadAs<std::uint32_t>(at);
    case Scalar::float32:
        return loadAs<float>(at);
    case Scalar::float64:
        break;
    }
    return loadAs<double>(at);
}

// Bytes of one record; nothing when the element has a list or an unknown type.
std::optional<std::uint64_t> recordBytesOf(const PlyElement& element) {
    std::uint64_t bytes = 0;
    for (const PlyProperty& property : element.properties) {
        const std::optional<Scalar> scalar = scalarOf(property);
        if (!scalar) {
            return std::nullopt;
        }
        bytes += widthOf(*scalar);
    }
    return bytes;
}

std::optional<std::uint64_t> coefficientNumber(const std::string& name) {
    constexpr std::string_view prefix = "f_rest_";
    std::uint64_t number = 0;
    if (!name.starts_with(prefix)) {
        return std::nullopt;
    }
    const char* end = name.data() + name.size();
    const auto [stop, status] = std::from_chars(name.data() + prefix.size(), end, number);
    return status == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

std::uint64_t coefficientCount(const PlyElement& vertex) {
    std::uint64_t count = 0;
    for (const PlyProperty& property : vertex.properties) {
        count += coefficientNumber(property.name) ? 1u : 0u;
    }
    return count;
}

// 3 * ((degree + 1)^2 - 1) coefficients make a degree.
std::optional<int> degreeOf(const PlyElement& vertex) {
    const bool hasColour =
        std::ranges::any_of(vertex.properties, [](const PlyProperty& p) { return p.name == "f_dc_0"; });
    const std::uint64_t count = coefficientCount(vertex);
    for (std::uint64_t degree = 0; hasColour && degree <= 4; ++degree) {
        if (count == 3 * ((degree + 1) * (degree + 1) - 1)) {
            return static_cast<int>(degree);
        }
    }
    return std::nullopt;
}

// One property of the vertices and the series that its values go to.
struct Column {
    std::uint64_t offset;
    Scalar scalar;
    std::size_t series;
};

class ValueReader {
public:
    // The coefficients of a colour, which stand one after the other, share a series.
    explicit ValueReader(const PlyElement& vertex) {
        const std::uint64_t perColour = coefficientCount(vertex) / 3;
        std::map<std::string, std::size_t> places;
        std::uint64_t offset = 0;
        for (const PlyProperty& property : vertex.properties) {
            std::string name = property.name;
            if (const auto number = coefficientNumber(name); number && perColour > 0) {
                constexpr std::array<const char*, 3> colours = {"red", "green", "blue"};
                name = fmt::format("f_rest {}", colours[std::min<std::uint64_t>(*number / perColour, 2)]);
            }
            const auto [place, added] = places.emplace(name, series_.size());
            if (added) {
                series_.emplace_back(name);
            }
            const Scalar scalar = scalarOf(property).value();
            columns_.push_back({offset, scalar, place->second});
            offset += widthOf(scalar);
        }
    }

    void sample(const std::byte* record) {
        for (const Column& column : columns_) {
            series_[column.series].sample(load(column.scalar, record + column.offset));
        }
    }

    void widen(const std::byte* record) {
        for (const Column& column : columns_) {
            series_[column.series].widen(load(column.scalar, record + column.offset));
        }
    }

    std::vector<Distribution> finish() { return finished(series_); }

private:
    std::vector<Series> series_;
    std::vector<Column> columns_;
};

// The runs of the sample, and with `scan` every record between them.
void readValues(SceneFacts& facts, const PlyElement& vertex, std::uint64_t bodyAt, bool scan,
                const ScanProgress& progress) {
    const SamplePlan plan(vertex.count);
    ValueReader values(vertex);
    RecordStream stream(pathFromText(facts.name), bodyAt, facts.recordBytes, vertex.count,
                        scan ? vertex.count : plan.length);
    for (std::uint64_t run = 0; run < plan.runs; ++run) {
        const std::uint64_t start = plan.start(run);
        while (scan && stream.position() < start) {
            values.widen(stream.next());
        }
        stream.skip(start - std::min(start, stream.position()));
        for (std::uint64_t i = 0; i < plan.length && stream.position() < start + plan.length; ++i) {
            values.sample(stream.next());
        }
        progress(static_cast<double>(stream.position()) / static_cast<double>(vertex.count));
    }
    facts.scanned = scan || plan.everything();
    facts.sampled = plan.samples();
    facts.attributes = values.finish();
}

// Byte after `count` records of `bytes` from `at` on; nothing when no 64-bit number holds it.
std::optional<std::uint64_t> endOf(std::uint64_t at, std::uint64_t count, std::uint64_t bytes) {
    if (bytes > 0 && count > (UINT64_MAX - at) / bytes) {
        return std::nullopt;
    }
    return at + count * bytes;
}

// Where the vertices start, and how long the file must be; what stands in the way of reading them, if
// anything does.
void placeBody(SceneFacts& facts, std::uint64_t& bodyAt) {
    std::optional<std::uint64_t> next = facts.header.length;
    std::optional<std::uint64_t> vertexEnd;
    for (const PlyElement& element : facts.header.elements) {
        const std::optional<std::uint64_t> bytes = recordBytesOf(element);
        const std::optional<std::uint64_t> start = next;
        next = start && bytes ? endOf(*start, element.count, *bytes) : std::nullopt;
        if (element.name == "vertex") {
            facts.recordBytes = bytes.value_or(0);
            bodyAt = start.value_or(0);
            vertexEnd = next;
        }
    }
    if (facts.header.format != "binary_little_endian") {
        facts.bodyProblem = fmt::format("the format is {}", facts.header.format);
        return;
    }
    facts.expectedBytes = next.value_or(0);
    if (!facts.splats) {
        facts.bodyProblem = "there is no element vertex";
    } else if (!vertexEnd || facts.recordBytes == 0) {
        facts.bodyProblem = "the vertices have no fixed size or place";
    } else if (*vertexEnd > facts.bytes) {
        facts.bodyProblem =
            fmt::format("the file is cut: {} of {} vertices are in it",
                        (facts.bytes - std::min(facts.bytes, bodyAt)) / facts.recordBytes, *facts.splats);
    }
}

} // namespace

SceneFacts readSceneFacts(const std::string& name, bool scan, const ScanProgress& progress) {
    SceneFacts facts;
    facts.name = name;
    const std::filesystem::path path = pathFromText(name);
    facts.header = readPlyHeader(path);
    facts.bytes = std::filesystem::file_size(path);
    for (const std::string& line : facts.header.lines) {
        const std::vector<std::string_view> words = wordsOf(line);
        if (!words.empty() && (words.front() == "comment" || words.front() == "obj_info")) {
            facts.comments.push_back(line);
        }
    }
    const LayoutResult layout = splatLayoutOf(facts.header);
    facts.layoutProblem = layout.problem ? layout.problem->text : std::string();
    const auto vertex = std::ranges::find_if(
        facts.header.elements, [](const PlyElement& element) { return element.name == "vertex"; });
    std::uint64_t bodyAt = 0;
    if (vertex != facts.header.elements.end()) {
        facts.splats = vertex->count;
        facts.degree = degreeOf(*vertex);
        facts.stated = readSceneComments(facts.header, coefficientCount(*vertex) > 0);
    }
    placeBody(facts, bodyAt);
    if (facts.bodyProblem.empty()) {
        readValues(facts, *vertex, bodyAt, scan, progress);
    }
    return facts;
}

} // namespace Tavrin::SplatProgram
