#include "program/convert/verification.h"

#include "program/system/exit_status.h"
#include "program/system/interrupt.h"
#include "program/terminal/figures.h"

#include <fmt/format.h>

#include <algorithm>

namespace Tavrin::SplatProgram {
namespace {

[[noreturn]] void fail(const std::string& input, const std::string& what) {
    throw Failure(ExitStatus::verificationFailed,
                  fmt::format("{}: the written dataset is not sound: {}", input, what));
}

// Splats at no finite position are kept as they are, and were warned of: as many of them as the input holds
// are no fault of the dataset.
void requireSound(const SplatReader::Findings& findings, const std::string& input, const Plan* plan) {
    constexpr const char* positionKind = "record-position";
    const auto kind = findings.errorKinds().find(positionKind);
    const bool isFromInput =
        kind != findings.errorKinds().end() && plan != nullptr && kind->second == plan->extent.notFinite;
    const std::uint64_t errors = findings.errorCount() - (isFromInput ? kind->second : 0);
    if (errors == 0) {
        return;
    }
    const auto isUnexpected = [&](const SplatReader::Finding& finding) {
        return !(isFromInput && finding.kind == positionKind);
    };
    const auto first = std::ranges::find_if(findings.errors(), isUnexpected);
    fail(input, first->text() + (errors > 1 ? fmt::format(" (and {} more)", countText(errors - 1)) : ""));
}

// What the plan foresaw, which the program computed from the input by itself.
void compareWithPlan(const SplatReader::VerifyReport& report, const std::string& input, const Plan& plan) {
    const std::uint64_t read = plan.input.file.records;
    if (report.splatsHeld + report.splatsLeftOut != read) {
        fail(input, fmt::format("{} read, but {} written and {} left out", countText(read, "splat", "splats"),
                                countText(report.splatsHeld), countText(report.splatsLeftOut)));
    }
    if (!plan.areCellsKnown) {
        return;
    }
    if (report.splatsLeftOut != plan.cells.leftOut || report.cells != plan.cells.cells) {
        fail(input, fmt::format("{} cells with {} splats left out, planned were {} with {}",
                                countText(report.cells), countText(report.splatsLeftOut),
                                countText(plan.cells.cells), countText(plan.cells.leftOut)));
    }
}

} // namespace

SplatReader::VerifyReport verifyConversion(const std::filesystem::path& folder, const std::string& input,
                                           const Plan* plan, bool allowLoss, Progress& progress) {
    SplatReader::VerifyOptions options;
    options.level = SplatReader::VerifyLevel::full;
    options.progress = [&](std::uint64_t done, std::uint64_t all) {
        throwIfInterrupted();
        progress.update(Stage::verifying,
                        all > 0 ? static_cast<double>(done) / static_cast<double>(all) : 1.0);
    };
    progress.update(Stage::verifying);
    SplatReader::VerifyReport report = SplatReader::verifyDataset(folder, options);
    progress.clear();
    requireSound(report.findings, input, plan);
    if (plan != nullptr) {
        compareWithPlan(report, input, *plan);
    }
    if (report.splatsLeftOut > 0 && !allowLoss) {
        throw Failure(
            ExitStatus::splatsLeftOut,
            fmt::format("{}: {} of {} outside the grid and are left out: state bounds that hold them, or "
                        "--allow-loss",
                        input, countText(report.splatsLeftOut),
                        countText(report.splatsHeld + report.splatsLeftOut, "splat lies", "splats lie")));
    }
    return report;
}

} // namespace Tavrin::SplatProgram
