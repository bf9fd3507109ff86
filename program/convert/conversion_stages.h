#pragma once

#include "program/convert/preflight.h"
#include "program/terminal/progress.h"

#include <cstdint>
#include <filesystem>
#include <optional>

namespace Tavrin::SplatProgram {

// Tells from outside what a running conversion does: from its log, from the bytes it has read, and from the
// sizes of the files it writes.
class ConversionStages {
public:
    // `plan` may be null: then nothing but the stage is known.
    ConversionStages(std::filesystem::path folder, const Plan* plan);

    // `bytesRead` by the process since its start; nothing when the system does not tell.
    void show(std::optional<std::uint64_t> bytesRead, Progress& progress);

private:
    Stage stageNow() const;
    std::optional<double> shareOf(Stage stage, std::optional<std::uint64_t> bytesRead) const;

    std::filesystem::path folder_;
    const Plan* plan_;
    Stage stage_ = Stage::measuring;
    std::uint64_t readBefore_ = 0; // bytes read before the stage
};

} // namespace Tavrin::SplatProgram
