// SPZ files, versions 1 to 4: packed, planar, compressed splats.
#pragma once

#include "source/axes.h"
#include "source/input.h"
#include "source/record_file.h"
#include "source/spz_arrays.h"
#include "source/spz_container.h"
#include "source/spz_records.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace Tavrin::SplatSource {

// An SPZ file. Reading unpacks its arrays through buffers of fixed size to a scratch file, at most 92 bytes a
// splat, and reads records from there. It is then that damage after the header is found.
struct SpzInput final : Input {
    // `scratchFolder` exists. Unpacks the file only if its axes are stated after its arrays. Throws
    // SourceError when it is not an SPZ file that can be read, ScratchError, and what `pause` throws.
    SpzInput(const std::filesystem::path& path, InputAxes axes, const std::filesystem::path& scratchFolder,
             Pause pause = {});

    // These also throw ScratchError.
    void readWide(std::uint64_t first, std::uint64_t size, float* records, double* positions) const override;
    void readPositions(std::uint64_t first, std::uint64_t size, double* positions) const override;
    std::vector<std::string> laterRemarks() const override;

    void requireUnchanged() const override;

private:
    RecordFile file_;
    SpzHeader header_;
    SpzArrays arrays_;
    SpzRecords decoder_;

    AxisTurn settleAxes(InputAxes axes);
};

// Sets what the header says about an input.
void describeSpz(const SpzHeader& header, Input& input);

} // namespace Tavrin::SplatSource
