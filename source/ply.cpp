#include "source/ply.h"

#include <algorithm>
#include <bit>
#include <fmt/format.h>

namespace Tavrin::SplatSource {
namespace {

constexpr std::uint64_t pieceBytes = 1 << 17; // vertices read at a time stay in the second-level cache

} // namespace

std::string readStart(const RecordFile& file) {
    std::string start(static_cast<std::size_t>(std::min<std::uint64_t>(longestPlyHeader, file.size())), '\0');
    file.read(0, start.data(), start.size());
    return start;
}

PlyInput::PlyInput(const std::filesystem::path& path, unsigned threads) : m_file(path) {
    name = m_file.name();
    m_header = parsePlyHeader(readStart(m_file), name);
    m_layout = splatLayoutOf(m_header, name);
    kind = "PLY, " + m_header.formatText;
    degree = m_layout.degree;
    hasCoefficients = m_layout.hasCoefficients();
    isWide = m_layout.isWide;
    hasOpenUnits = true;
    stated = readSceneComments(m_header, hasCoefficients);
    if (!stated.errors.empty()) {
        const HeaderRemark& error = stated.errors.front();
        throw SourceError(fmt::format("{}:{}: {}", name, error.line, error.text));
    }
    params = paramsOf(stated);
    boundsSeen = stated.statesBounds();
    count = m_header.find("vertex")->count;
    m_body = openPlyBody(m_file, m_header, threads);
    m_map = std::make_unique<RecordMap>(m_layout, m_header.format == PlyFormat::binaryBigEndian);
    isCanonical = m_layout.isCanonical && m_header.format == PlyFormat::binaryLittleEndian &&
                  m_header.elements.size() == 1;
    remarks = m_layout.remarks;
    remarks.insert(remarks.end(), m_body->remarks.begin(), m_body->remarks.end());
}

void PlyInput::readCanonical(std::uint64_t first, std::uint64_t size, float* records,
                             double* positions) const {
    m_body->read(first, size, reinterpret_cast<std::byte*>(records));
    m_map->mapInPlace(records, size);
    for (std::uint64_t i = 0; positions != nullptr && i < size; ++i) {
        std::copy_n(records + i * m_layout.floats(), 3, positions + 3 * i);
    }
}

template <typename Take>
void PlyInput::readPieces(std::uint64_t first, std::uint64_t size, Take take) const {
    thread_local std::vector<std::byte> vertices;
    const std::uint64_t step = std::max<std::uint64_t>(pieceBytes / m_layout.recordBytes, 1);
    vertices.resize(std::max(vertices.size(), static_cast<std::size_t>(step * m_layout.recordBytes)));
    for (std::uint64_t done = 0; done < size;) {
        const std::uint64_t part = std::min(step, size - done);
        m_body->read(first + done, part, vertices.data());
        take(vertices.data(), done, part);
        done += part;
    }
}

void PlyInput::readWide(std::uint64_t first, std::uint64_t size, float* records, double* positions) const {
    if (m_layout.isCanonical) {
        readCanonical(first, size, records, positions);
        return;
    }
    readPieces(first, size, [&](const std::byte* vertices, std::uint64_t done, std::uint64_t part) {
        m_map->map(vertices, part, records + done * m_layout.floats());
        if (positions != nullptr) {
            m_map->mapPositions(vertices, part, positions + 3 * done);
        }
    });
}

void PlyInput::readPositions(std::uint64_t first, std::uint64_t size, double* positions) const {
    readPieces(first, size, [&](const std::byte* vertices, std::uint64_t done, std::uint64_t part) {
        m_map->mapPositions(vertices, part, positions + 3 * done);
    });
}

} // namespace Tavrin::SplatSource
