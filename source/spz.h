// SPZ files, versions 1 to 4: packed, planar, compressed splats.
#pragma once

#include "source/axes.h"
#include "source/input.h"
#include "source/record_file.h"
#include "source/scratch_file.h"
#include "source/spz_container.h"

#include <cstdint>
#include <filesystem>

namespace Tavrin::SplatSource {

// An SPZ file. Opening it unpacks its arrays to a scratch file, at most 92 bytes a splat, through buffers of
// fixed size; records are read from there.
struct SpzInput final : Input {
    // `scratchFolder` exists. Throws SourceError when the file is no SPZ file that can be read, and
    // ScratchError.
    SpzInput(const std::filesystem::path& path, InputAxes axes, const std::filesystem::path& scratchFolder);

    void readWide(std::uint64_t first, std::uint64_t size, float* records, double* positions) const override;
    void requireUnchanged() const override;

private:
    RecordFile file_;
    SpzHeader header_;
    ScratchFile arrays_;
    AxisTurn axisTurn_;

    SpzContent unpack();
    void settleAxes(InputAxes axes, std::uint32_t code);
    void decode(const std::uint8_t* bytes, std::uint64_t size, float* records) const;
    void decodePositions(const std::uint8_t* bytes, std::uint64_t size, float* records) const;
    void decodeRotations(const std::uint8_t* bytes, std::uint64_t size, float* records) const;
    void decodeCoefficients(const std::uint8_t* bytes, std::uint64_t size, float* records) const;
};

// Sets what the header alone says of an input.
void describeSpz(const SpzHeader& header, Input& input);

} // namespace Tavrin::SplatSource
