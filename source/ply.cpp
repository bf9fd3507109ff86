#include "source/ply.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace Tavrin::SplatSource {
namespace {

constexpr std::uint64_t pieceBytes = 1 << 17; // vertices read at a time stay in the second-level cache

} // namespace

std::string readStart(const RecordFile& file) {
    std::string start(static_cast<std::size_t>(std::min<std::uint64_t>(longestPlyHeader, file.size())), '\0');
    file.read(0, start.data(), start.size());
    return start;
}

void describePly(const PlyHeader& header, const SplatLayout& layout, Input& input) {
    input.kind = "PLY, " + header.formatText;
    input.degree = layout.degree;
    input.hasCoefficients = layout.hasCoefficients();
    input.isWide = layout.isWide;
    input.hasOpenUnits = true;
    input.stated = readSceneComments(header, input.hasCoefficients);
    if (!input.stated.errors.empty()) {
        const HeaderRemark& error = input.stated.errors.front();
        throw SourceError(fmt::format("{}:{}: {}", input.name, error.line, error.text));
    }
    input.params = paramsOf(input.stated);
    input.boundsSeen = input.stated.statesBounds();
    input.count = header.find("vertex")->count;
    input.isCanonical =
        layout.isCanonical && header.format == PlyFormat::binaryLittleEndian && header.elements.size() == 1;
    input.remarks = layout.remarks;
}

PlyInput::PlyInput(const std::filesystem::path& path, unsigned threads, Pause pause)
    : file_(path, std::move(pause)) {
    name = file_.name();
    header_ = parsePlyHeader(readStart(file_), name);
    layout_ = splatLayoutOf(header_, name);
    describePly(header_, layout_, *this);
    body_ = openPlyBody(file_, header_, threads);
    map_ = std::make_unique<RecordMap>(layout_, header_.format == PlyFormat::binaryBigEndian);
    remarks.insert(remarks.end(), body_->remarks.begin(), body_->remarks.end());
}

void PlyInput::readCanonical(std::uint64_t first, std::uint64_t size, float* records,
                             double* positions) const {
    body_->read(first, size, reinterpret_cast<std::byte*>(records));
    map_->mapInPlace(records, size);
    for (std::uint64_t i = 0; positions != nullptr && i < size; ++i) {
        std::copy_n(records + i * layout_.floats(), 3, positions + 3 * i);
    }
}

template <typename Take>
void PlyInput::readPieces(std::uint64_t first, std::uint64_t size, Take take) const {
    thread_local std::vector<std::byte> vertices;
    const std::uint64_t step = std::max<std::uint64_t>(pieceBytes / layout_.recordBytes, 1);
    vertices.resize(std::max(vertices.size(), static_cast<std::size_t>(step * layout_.recordBytes)));
    for (std::uint64_t done = 0; done < size;) {
        const std::uint64_t part = std::min(step, size - done);
        body_->read(first + done, part, vertices.data());
        take(vertices.data(), done, part);
        done += part;
    }
}

void PlyInput::readWide(std::uint64_t first, std::uint64_t size, float* records, double* positions) const {
    if (layout_.isCanonical) {
        readCanonical(first, size, records, positions);
        return;
    }
    readPieces(first, size, [&](const std::byte* vertices, std::uint64_t done, std::uint64_t part) {
        map_->map(vertices, part, records + done * layout_.floats());
        if (positions != nullptr) {
            map_->mapPositions(vertices, part, positions + 3 * done);
        }
    });
}

void PlyInput::readPositions(std::uint64_t first, std::uint64_t size, double* positions) const {
    readPieces(first, size, [&](const std::byte* vertices, std::uint64_t done, std::uint64_t part) {
        map_->mapPositions(vertices, part, positions + 3 * done);
    });
}

} // namespace Tavrin::SplatSource
