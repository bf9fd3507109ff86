#include "conversion_stages.h"

#include <algorithm>
#include <fstream>
#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {
namespace {

constexpr std::array<const char*, 4> stageNames = {"measuring the box", "reading splats", "grouping by cell",
                                                   "writing"};

std::uint64_t sizeOf(const std::filesystem::path& file) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(file, error);
    return error ? 0 : size;
}

} // namespace

ConversionStages::ConversionStages(std::filesystem::path folder, const Plan* plan)
    : m_folder(std::move(folder)), m_plan(plan) {}

// Each stage begins with a line in the log, which is flushed line by line; the log itself begins after the
// box is known.
ConversionStages::Stage ConversionStages::stageNow() const {
    std::ifstream log(m_folder / "log.txt");
    Stage stage = Measuring;
    for (std::string line; std::getline(log, line);) {
        const auto says = [&](std::string_view text) { return line.find(text) != line.npos; };
        if (says("Start chunking")) {
            stage = Reading;
        } else if (says("Start Index ,need")) {
            stage = Grouping;
        } else if (says("Start create Data")) {
            stage = Writing;
        }
    }
    return stage;
}

std::optional<double> ConversionStages::shareOf(Stage stage, std::optional<std::uint64_t> bytesRead) const {
    if (m_plan == nullptr) {
        return std::nullopt;
    }
    const SplatFile& file = m_plan->input.file;
    const auto share = [](std::uint64_t done, std::uint64_t all) {
        return all > 0 ? std::min(1.0, static_cast<double>(done) / static_cast<double>(all)) : 1.0;
    };
    if (stage == Writing) {
        return share(sizeOf(m_folder / "data.bin") + sizeOf(m_folder / "shcoef.bin"),
                     m_plan->dataBytes + m_plan->coefficientBytes);
    }
    if (stage == Grouping || !bytesRead) {
        return std::nullopt;
    }
    // Both passes read the whole body; the first steps by 248 bytes and so reads to the end of shorter
    // records.
    return share(*bytesRead - std::min(*bytesRead, m_readBefore), file.records * file.layout.recordBytes());
}

void ConversionStages::show(std::optional<std::uint64_t> bytesRead, Progress& progress) {
    const double now = progress.seconds();
    const Stage stage = stageNow();
    if (m_start < 0.0) {
        m_start = m_stageStart = now;
    }
    if (stage != m_stage) {
        m_stage = stage;
        m_stageStart = now;
        m_readBefore = bytesRead.value_or(0);
    }
    const std::optional<double> share = shareOf(stage, bytesRead);
    progress.update(stageNames[stage], share, secondsLeft(stage, share, now));
}

// The stages' parts of the time, as they are on machines with two to eight cores. They only shape the
// estimate.
std::optional<double> ConversionStages::secondsLeft(Stage stage, std::optional<double> share,
                                                    double now) const {
    if (m_plan == nullptr) {
        return std::nullopt;
    }
    constexpr std::array<double, stageCount> parts = {1.0, 6.0, 5.0, 3.0};
    double before = 0.0;
    double all = 0.0;
    for (std::size_t i = m_plan->isBoxMeasured ? Measuring : Reading; i < stageCount; ++i) {
        before += i < stage ? parts[i] : 0.0;
        all += parts[i];
    }
    if (share) {
        const double done = (before + parts[stage] * *share) / all;
        constexpr double leastDone = 0.03; // before that the estimate jumps
        return done < leastDone ? std::nullopt : std::optional((now - m_start) * (1.0 - done) / done);
    }
    // How far a stage without a share is, its own part of the time tells.
    if (before == 0.0) {
        return std::nullopt;
    }
    const double perPart = (m_stageStart - m_start) / before;
    return std::max(0.0, perPart * (all - before) - (now - m_stageStart));
}

} // namespace Tavrin::SplatProgram
