#include "source/canonical_ply.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>

namespace Tavrin::SplatSource {

using GaussionSplat::recordSizeWithCoefficients;
using GaussionSplat::recordSizeWithoutCoefficients;
using GaussionSplat::scanStride;

static_assert(std::endian::native == std::endian::little, "records are used as they lie in the file");

CanonicalPly::CanonicalPly(const std::filesystem::path& path, const CanonicalPlyFacts& facts)
    : file_(path), bodyAt_(facts.bodyAt),
      recordBytes_(facts.hasCoefficients ? recordSizeWithCoefficients : recordSizeWithoutCoefficients) {
    count = facts.count;
    hasCoefficients = facts.hasCoefficients;
    params = facts.params;
    boundsSeen = facts.boundsSeen;
    const std::uint64_t body = file_.size() - std::min(file_.size(), bodyAt_);
    if (count > body / recordBytes_) {
        throw SourceError(file_.name() + ": the header states " + std::to_string(count) + " splats of " +
                          std::to_string(recordBytes_) + " bytes and the file holds " +
                          std::to_string(body / recordBytes_) + ": it was cut; copy or export it again");
    }
}

std::uint64_t CanonicalPly::read(std::uint64_t first, std::uint64_t size, float* records) const {
    file_.read(bodyAt_ + first * recordBytes_, records, size * recordBytes_);
    return size;
}

std::uint64_t CanonicalPly::boxPositions() const {
    if (recordBytes_ == scanStride) {
        return 0;
    }
    const std::uint64_t body = file_.size() - bodyAt_;
    return std::min(count, body / scanStride + (body % scanStride != 0 ? 1 : 0));
}

void CanonicalPly::readBoxPositions(std::uint64_t first, std::uint64_t size, float* positions) const {
    constexpr std::size_t positionBytes = 3 * sizeof(float);
    auto* const bytes = reinterpret_cast<std::byte*>(positions);
    const std::uint64_t length = size * scanStride;
    const std::uint64_t got = file_.readUpTo(bodyAt_ + first * scanStride, bytes, length);
    // The end of the file may cut the last position, even inside a number. The rest of it is zeros.
    std::memset(bytes + got, 0, length - got);
    for (std::uint64_t i = 1; i < size; ++i) {
        std::memmove(bytes + i * positionBytes, bytes + i * scanStride, positionBytes);
    }
}

} // namespace Tavrin::SplatSource
