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

// Splats whose position is not finite are kept as they are, with a warning. So the dataset may have exactly
// as many of them as the input.
void requireSound(const SplatReader::Findings& findings, const std::string& input,
                  const SplatStream::Measured& measured) {
    constexpr const char* positionKind = "record-position";
    const auto kind = findings.errorKinds().find(positionKind);
    const bool isFromInput = kind != findings.errorKinds().end() && kind->second == measured.notFinite;
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

// Compares with the counts of the first pass, which are independent of the second.
void compareWithMeasured(const SplatReader::VerifyReport& report, const std::string& input,
                         const SplatStream::Measured& measured) {
    if (report.splatsHeld + report.splatsLeftOut != measured.splats) {
        fail(input, fmt::format("{} read, but {} written and {} left out",
                                countText(measured.splats, "splat", "splats"), countText(report.splatsHeld),
                                countText(report.splatsLeftOut)));
    }
    if (report.splatsLeftOut != measured.leftOut || report.cells != measured.cells.size()) {
        fail(input, fmt::format("{} cells and {} splats left out, but {} and {} were measured",
                                countText(report.cells), countText(report.splatsLeftOut),
                                countText(measured.cells.size()), countText(measured.leftOut)));
    }
}

} // namespace

SplatReader::VerifyReport verifyConversion(const std::filesystem::path& folder, const std::string& input,
                                           const SplatStream::Measured& measured,
                                           const SplatSource::Ledger& ledger, bool allowLoss,
                                           unsigned threads, Progress& progress) {
    SplatReader::VerifyOptions options;
    options.level = SplatReader::VerifyLevel::full;
    options.threads = threads;
    options.progress = [&](std::uint64_t done, std::uint64_t all) {
        throwIfInterrupted();
        progress.update(Stage::verifying, static_cast<double>(done) / static_cast<double>(all), done);
    };
    progress.update(Stage::verifying, 0.0, 0);
    SplatReader::VerifyReport report = SplatReader::verifyDataset(folder, options);
    progress.clear();
    requireSound(report.findings, input, measured);
    compareWithMeasured(report, input, measured);
    if (ledger.read != report.splatsHeld + report.splatsLeftOut + ledger.droppedInAll()) {
        fail(input, fmt::format("{} read, but {} written, {} dropped and {} left out",
                                countText(ledger.read, "splat", "splats"), countText(report.splatsHeld),
                                countText(ledger.droppedInAll()), countText(report.splatsLeftOut)));
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
