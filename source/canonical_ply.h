// The scene of a binary little-endian PLY file whose records already have the canonical form.
#pragma once

#include "source/record_file.h"
#include "source/source.h"

#include <cstdint>
#include <filesystem>

namespace Tavrin::SplatSource {

// The place of the records in a file, and what its header says about them.
struct CanonicalPlyFacts {
    std::uint64_t bodyAt = 0; // byte offset of the first record
    std::uint64_t count = 0;  // records
    bool hasCoefficients = false;
    GaussionSplat::Params params;
    bool boundsSeen = false;
};

class CanonicalPly final : public Source {
public:
    // Throws SourceError when the file cannot be opened or ends before its last record.
    CanonicalPly(const std::filesystem::path& path, const CanonicalPlyFacts& facts);

    std::uint64_t read(std::uint64_t first, std::uint64_t size, float* records) const override;

    // The converter's scan steps by scanStride, whatever the size of a record, and reads zeros beyond the end
    // of the file.
    std::uint64_t boxPositions() const override;
    void readBoxPositions(std::uint64_t first, std::uint64_t size, float* positions) const override;

    void requireUnchanged() const override { file_.requireUnchanged(); }

private:
    RecordFile file_;
    std::uint64_t bodyAt_;
    std::uint64_t recordBytes_;
};

} // namespace Tavrin::SplatSource
