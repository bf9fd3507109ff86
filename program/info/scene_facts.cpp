#include "program/info/scene_facts.h"

#include "program/scene/open_scene.h"
#include "program/scene/record_stream.h"
#include "program/system/exit_status.h"
#include "program/system/interrupt.h"
#include "program/system/platform.h"
#include "program/system/processors.h"
#include "source/open.h"
#include "source/ply.h"
#include "source/ply_layout.h"
#include "source/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>

namespace Tavrin::SplatProgram {
namespace {

using SplatSource::PlyElement;
using SplatSource::PlyProperty;
using SplatSource::Scalar;
using SplatSource::widthOf;

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

// A degree has 3 * ((degree + 1)^2 - 1) coefficients.
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
    // The coefficients of one colour channel, which are adjacent, share a series.
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
            columns_.push_back({offset, property.type, place->second});
            offset += widthOf(property.type);
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

// Reads the sampled runs, and with `scan` also the records between them.
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

// The offset after `count` records of `bytes` bytes that start at `at`; nothing if it exceeds 64 bits.
std::optional<std::uint64_t> endOf(std::uint64_t at, std::uint64_t count, std::uint64_t bytes) {
    if (bytes > 0 && count > (UINT64_MAX - at) / bytes) {
        return std::nullopt;
    }
    return at + count * bytes;
}

// Finds where the vertices start and how long the file must be, or the reason why they cannot be read.
void placeBody(SceneFacts& facts, std::uint64_t& bodyAt) {
    std::optional<std::uint64_t> next = facts.header.length;
    std::optional<std::uint64_t> vertexEnd;
    for (const PlyElement& element : facts.header.elements) {
        const std::optional<std::uint64_t> bytes = element.recordBytes();
        const std::optional<std::uint64_t> start = next;
        next = start && bytes ? endOf(*start, element.count, *bytes) : std::nullopt;
        if (element.name == "vertex") {
            facts.recordBytes = bytes.value_or(0);
            bodyAt = start.value_or(0);
            vertexEnd = next;
        }
    }
    if (facts.header.format != SplatSource::PlyFormat::binaryLittleEndian) {
        facts.bodyProblem = fmt::format("the format is {}", facts.header.formatText);
        return;
    }
    facts.expectedBytes = next.value_or(0);
    if (!facts.splats) {
        facts.bodyProblem = "there is no element vertex";
    } else if (!vertexEnd || facts.recordBytes == 0) {
        facts.bodyProblem = "the vertices have lists or follow an element with lists";
    } else if (*vertexEnd > facts.bytes) {
        facts.bodyProblem =
            fmt::format("the file is cut: {} of {} vertices are in it",
                        (facts.bytes - std::min(facts.bytes, bodyAt)) / facts.recordBytes, *facts.splats);
    }
}

// An element with the properties of the canonical record, for files that are read through the converter's
// reader.
PlyElement canonicalVertex(const SplatSource::Input& input) {
    PlyElement vertex;
    vertex.name = "vertex";
    vertex.count = input.count;
    for (const std::string& name : SplatSource::canonicalNames(input.hasCoefficients)) {
        PlyProperty property;
        property.name = name;
        vertex.properties.push_back(property);
    }
    return vertex;
}

void readRecords(SceneFacts& facts, const SplatSource::Input& input, bool scan,
                 const ScanProgress& progress) {
    constexpr std::uint64_t windowRecords = 1024;
    const SamplePlan plan(input.count);
    ValueReader values(canonicalVertex(input));
    const std::size_t floats = GaussionSplat::recordLayout(input.hasCoefficients).floats;
    std::vector<float> records(windowRecords * floats);
    const auto readEach = [&](std::uint64_t first, std::uint64_t end, auto take) {
        for (; first < end; first += windowRecords) {
            throwIfInterrupted();
            const std::uint64_t size = std::min(windowRecords, end - first);
            input.read(first, size, records.data());
            for (std::uint64_t i = 0; i < size; ++i) {
                take(reinterpret_cast<const std::byte*>(records.data() + i * floats));
            }
            progress(static_cast<double>(first + size) / static_cast<double>(input.count));
        }
    };
    std::uint64_t at = 0;
    for (std::uint64_t run = 0; run < plan.runs; ++run) {
        const std::uint64_t start = plan.start(run);
        if (scan) {
            readEach(at, start, [&](const std::byte* record) { values.widen(record); });
        }
        at = std::min(start + plan.length, input.count);
        readEach(start, at, [&](const std::byte* record) { values.sample(record); });
    }
    if (scan) {
        readEach(at, input.count, [&](const std::byte* record) { values.widen(record); });
    }
    facts.bodyProblem.clear();
    facts.scanned = scan || plan.everything();
    facts.sampled = plan.samples();
    facts.attributes = values.finish();
}

// Opens the file as the converter would. If the converter refuses it, null, and facts.layoutProblem has the
// reason.
std::unique_ptr<SplatSource::Input> openInput(SceneFacts& facts, const std::filesystem::path& path) {
    SplatSource::OpenOptions options;
    options.threads = usableProcessors();
    options.scratchFolder = std::filesystem::temp_directory_path();
    options.pause = throwIfInterrupted;
    try {
        return SplatSource::openSource(path, options);
    } catch (const SplatSource::SourceError& error) {
        facts.layoutProblem = error.what();
        return nullptr;
    }
}

// Reads the positions as a conversion does, since the coordinates may exceed single precision.
SceneFacts::Place placeOf(std::unique_ptr<SplatSource::Input> input) {
    SplatSource::SceneOptions options;
    options.open.threads = usableProcessors();
    options.open.pause = throwIfInterrupted;
    std::vector<std::unique_ptr<SplatSource::Input>> inputs;
    inputs.push_back(std::move(input));
    const SplatSource::Scene scene(std::move(inputs), options);
    const SplatSource::Box extent = scene.isExact ? SplatSource::Box() : scene.measureBox(usableProcessors());
    return {offsetText(scene, extent),
            {scene.params.offsetx, scene.params.offsety, scene.params.offsetz},
            scene.errorWithin(extent)};
}

void readPlyHeader(SceneFacts& facts, std::uint64_t& bodyAt) {
    for (const std::string& line : facts.header.lines) {
        const std::vector<std::string_view> words = SplatSource::wordsOf(line);
        if (!words.empty() && (words.front() == "comment" || words.front() == "obj_info")) {
            facts.comments.push_back(line);
        }
    }
    if (const PlyElement* const vertex = facts.header.find("vertex")) {
        facts.splats = vertex->count;
        facts.degree = degreeOf(*vertex);
        facts.stated = SplatSource::readSceneComments(facts.header, coefficientCount(*vertex) > 0);
    }
    placeBody(facts, bodyAt);
}

} // namespace

SceneFacts readSceneFacts(const std::string& name, bool scan, const ScanProgress& progress) try {
    SceneFacts facts;
    facts.name = name;
    const std::filesystem::path path = pathFromText(name);
    std::uint64_t bodyAt = 0;
    {
        const SplatSource::RecordFile file(path);
        facts.bytes = file.size();
        const std::string start = SplatSource::readStart(file);
        if (SplatSource::looksLikePly(start)) {
            facts.kind = "PLY";
            facts.header = SplatSource::parsePlyHeader(start, name);
            readPlyHeader(facts, bodyAt);
        }
    }
    std::unique_ptr<SplatSource::Input> input = openInput(facts, path);
    if (!input && facts.kind.empty()) {
        throw Failure(ExitStatus::inputRefused, facts.layoutProblem);
    }
    if (input) {
        facts.kind = facts.kind.empty() ? input->kind : facts.kind;
        facts.splats = input->count;
        facts.degree = input->degree;
        facts.isCanonical = input->isCanonical;
    }
    const PlyElement* const vertex = facts.header.find("vertex");
    if (vertex != nullptr && facts.bodyProblem.empty()) {
        readValues(facts, *vertex, bodyAt, scan, progress);
    } else if (input) {
        readRecords(facts, *input, scan, progress);
    }
    if (input) {
        facts.remarks = input->remarks;
        std::ranges::copy(input->laterRemarks(), std::back_inserter(facts.remarks));
        facts.place = placeOf(std::move(input));
    }
    return facts;
} catch (...) {
    rethrowAsFailure(ExitStatus::inputRefused);
}

} // namespace Tavrin::SplatProgram
