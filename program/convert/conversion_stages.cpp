#include "program/convert/conversion_stages.h"

#include <algorithm>
#include <fstream>
#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {
namespace {

std::uint64_t sizeOf(const std::filesystem::path& file) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(file, error);
    return error ? 0 : size;
}

} // namespace

ConversionStages::ConversionStages(std::filesystem::path folder, const Plan* plan)
    : folder_(std::move(folder)), plan_(plan) {}

// Each stage begins with a line in the log, which is flushed line by line; the log itself begins after the
// box is known.
Stage ConversionStages::stageNow() const {
    std::ifstream log(folder_ / "log.txt");
    Stage stage = Stage::measuring;
    for (std::string line; std::getline(log, line);) {
        const auto says = [&](std::string_view text) { return line.find(text) != line.npos; };
        if (says("Start chunking")) {
            stage = Stage::reading;
        } else if (says("Start Index ,need")) {
            stage = Stage::grouping;
        } else if (says("Start create Data")) {
            stage = Stage::writing;
        }
    }
    return stage;
}

std::optional<double> ConversionStages::shareOf(Stage stage, std::optional<std::uint64_t> bytesRead) const {
    if (plan_ == nullptr) {
        return std::nullopt;
    }
    const SplatFile& file = plan_->input.file;
    const auto share = [](std::uint64_t done, std::uint64_t all) {
        return all > 0 ? std::min(1.0, static_cast<double>(done) / static_cast<double>(all)) : 1.0;
    };
    if (stage == Stage::writing) {
        return share(sizeOf(folder_ / "data.bin") + sizeOf(folder_ / "shcoef.bin"),
                     plan_->dataBytes + plan_->coefficientBytes);
    }
    if (stage == Stage::grouping || !bytesRead) {
        return std::nullopt;
    }
    // Both passes read the whole body; the first steps by 248 bytes and so reads to the end of shorter
    // records.
    return share(*bytesRead - std::min(*bytesRead, readBefore_), file.records * file.layout.recordBytes());
}

void ConversionStages::show(std::optional<std::uint64_t> bytesRead, Progress& progress) {
    const Stage stage = stageNow();
    if (stage != stage_) {
        stage_ = stage;
        readBefore_ = bytesRead.value_or(0);
    }
    progress.update(stage, shareOf(stage, bytesRead));
}

} // namespace Tavrin::SplatProgram
