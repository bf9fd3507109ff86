// Splats of a PLY file of any layout: text or binary, every type, properties in any order.
#pragma once

#include "source/input.h"
#include "source/ply_body.h"
#include "source/ply_header.h"
#include "source/ply_layout.h"
#include "source/ply_records.h"
#include "source/record_file.h"

#include <filesystem>
#include <memory>

namespace Tavrin::SplatSource {

class PlyInput final : public Input {
public:
    // Reads the header and finds the vertices (openPlyBody, which uses the threads). Throws SourceError and
    // what `pause` throws.
    PlyInput(const std::filesystem::path& path, unsigned threads, Pause pause = {});

    void readWide(std::uint64_t first, std::uint64_t size, float* records, double* positions) const override;
    void readPositions(std::uint64_t first, std::uint64_t size, double* positions) const override;
    void requireUnchanged() const override { file_.requireUnchanged(); }

    const PlyHeader& header() const { return header_; }

private:
    // Reads vertices a piece at a time and calls take(vertices, done, count) for each.
    template <typename Take>
    void readPieces(std::uint64_t first, std::uint64_t size, Take take) const;
    void readCanonical(std::uint64_t first, std::uint64_t size, float* records, double* positions) const;

    RecordFile file_;
    PlyHeader header_;
    SplatLayout layout_;
    std::unique_ptr<PlyBody> body_;
    std::unique_ptr<RecordMap> map_;
};

// The first bytes of a file, as many as a header may take. Throws SourceChanged.
std::string readStart(const RecordFile& file);

// Sets what the header says about an input; `input.name` is set already. Throws SourceError for comments that
// the converter fails on.
void describePly(const PlyHeader& header, const SplatLayout& layout, Input& input);

} // namespace Tavrin::SplatSource
