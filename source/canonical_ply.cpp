#include "source/canonical_ply.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>

namespace Tavrin::SplatSource {

using GaussionSplat::recordSizeWithoutShcoef;
using GaussionSplat::recordSizeWithShcoef;
using GaussionSplat::scanStride;

static_assert(std::endian::native == std::endian::little, "records are used as they lie in the file");

CanonicalPly::CanonicalPly(const std::filesystem::path& path, const CanonicalPlyFacts& facts)
    : m_file(path), m_bodyAt(facts.bodyAt),
      m_recordBytes(facts.hasCoefficients ? recordSizeWithShcoef : recordSizeWithoutShcoef) {
    count = facts.count;
    hasCoefficients = facts.hasCoefficients;
    params = facts.params;
    boundsSeen = facts.boundsSeen;
    const std::uint64_t body = m_file.size() - std::min(m_file.size(), m_bodyAt);
    if (count > body / m_recordBytes) {
        throw SourceError(m_file.name() + ": the header states " + std::to_string(count) + " splats of " +
                          std::to_string(m_recordBytes) + " bytes and the file holds " +
                          std::to_string(body / m_recordBytes) + ": it was cut; copy or export it again");
    }
}

std::uint64_t CanonicalPly::read(std::uint64_t first, std::uint64_t size, float* records) const {
    m_file.read(m_bodyAt + first * m_recordBytes, records, size * m_recordBytes);
    return size;
}

std::uint64_t CanonicalPly::boxPositions() const {
    if (m_recordBytes == scanStride) {
        return 0;
    }
    const std::uint64_t body = m_file.size() - m_bodyAt;
    return std::min(count, body / scanStride + (body % scanStride != 0 ? 1 : 0));
}

void CanonicalPly::readBoxPositions(std::uint64_t first, std::uint64_t size, float* positions) const {
    constexpr std::size_t positionBytes = 3 * sizeof(float);
    auto* const bytes = reinterpret_cast<std::byte*>(positions);
    const std::uint64_t length = size * scanStride;
    const std::uint64_t got = m_file.readUpTo(m_bodyAt + first * scanStride, bytes, length);
    // The last position may be cut by the end of the file, even inside a number: the rest is zeros.
    std::memset(bytes + got, 0, length - got);
    for (std::uint64_t i = 1; i < size; ++i) {
        std::memmove(bytes + i * positionBytes, bytes + i * scanStride, positionBytes);
    }
}

} // namespace Tavrin::SplatSource
