#include "program/tiles/report.h"

#include "plyconvert.h"
#include "program/system/partial_file.h"
#include "program/system/platform.h"
#include "program/terminal/console.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <string_view>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr std::string_view firstBytes = "{\"reportVersion\":"; // of every report

template <typename Value>
Json orNull(const std::optional<Value>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json inputsJson(const TileReport& report) {
    Json list = Json::array();
    for (std::size_t i = 0; i < report.inputs.size(); ++i) {
        const std::optional<InputFile> file =
            i < report.files.size() ? report.files[i] : std::optional<InputFile>();
        list.push_back({{"path", report.inputs[i]},
                        {"bytes", file ? Json(file->bytes) : Json(nullptr)},
                        {"changed", file ? Json(timeText(file->changed)) : Json(nullptr)}});
    }
    return list;
}

Json splatsJson(const TileReport& report) {
    Json dropped = Json::object();
    for (std::size_t i = 0; report.ledger && i < SplatSource::dropReasons; ++i) {
        dropped[SplatSource::nameOf(static_cast<SplatSource::DropReason>(i))] = report.ledger->dropped[i];
    }
    return {{"read", report.ledger ? Json(report.ledger->read) : Json(nullptr)},
            {"written", orNull(report.written)},
            {"dropped", report.ledger ? dropped : Json(nullptr)},
            {"leftOut", orNull(report.leftOut)}};
}

Json bytesJson(const TileReport& report) {
    if (!report.bytes) {
        return nullptr;
    }
    const auto& [data, coefficients, index, meta] = *report.bytes;
    return {{"data", data},
            {"coefficients", coefficients},
            {"index", index},
            {"meta", meta},
            {"all", data + coefficients + index + meta}};
}

const char* statusOf(const TileReport& report) {
    switch (report.outcome) {
    case Outcome::running:
        return "running";
    case Outcome::skipped:
        return "skipped";
    case Outcome::ended:
        break;
    }
    return nameOf(report.status);
}

void requireOutside(const std::string& name, const std::string& dataset) {
    std::error_code error;
    const fs::path file = resolvedPath(fs::absolute(pathFromText(name)), error);
    const fs::path folder = resolvedPath(fs::absolute(pathFromText(dataset)), error);
    const auto [end, unused] = std::mismatch(folder.begin(), folder.end(), file.begin(), file.end());
    if (!error && end == folder.end()) {
        throw Failure(
            ExitStatus::outputRefused,
            fmt::format("{}: lies in the dataset's folder, which holds nothing else: choose another "
                        "place for the report",
                        name));
    }
}

// Refuses to overwrite a file that is not a report, so that a mistyped name costs no file. mktemp makes empty
// files, so an empty one may be overwritten.
void requireReport(const std::string& name) {
    std::ifstream file(pathFromText(name), std::ios::binary);
    std::string start(firstBytes.size(), '\0');
    file.read(start.data(), static_cast<std::streamsize>(start.size()));
    start.resize(static_cast<std::size_t>(file.gcount()));
    if (!start.empty() && start != firstBytes) {
        throw Failure(ExitStatus::outputRefused,
                      fmt::format("{}: exists and is not a report: give another name", name));
    }
}

} // namespace

void StageTimes::begin(const char* stage) {
    const Clock::time_point now = Clock::now();
    if (!running_.empty()) {
        const auto same = std::ranges::find(ended_, running_, &std::pair<std::string, double>::first);
        if (same == ended_.end()) {
            ended_.emplace_back(running_, seconds(since_, now));
        } else {
            same->second += seconds(since_, now);
        }
    }
    running_ = stage;
    since_ = now;
}

std::vector<std::pair<std::string, double>> StageTimes::stages() const {
    StageTimes soFar = *this;
    soFar.begin("");
    return soFar.ended_;
}

void TileReport::take(const Summary& summary) {
    ledger = summary.ledger;
    written = summary.written;
    leftOut = summary.leftOut;
    cells = summary.cells;
    bytes = {summary.dataBytes, summary.coefficientBytes, summary.indexBytes, summary.metaBytes};
}

std::string reportJson(const TileReport& report) {
    Json json;
    json["reportVersion"] = reportVersion;
    json["program"] =
        fmt::format("{}.{}.{}", PLYCONVERT_VERSION_MAJOR, PLYCONVERT_VERSION_MINOR, PLYCONVERT_VERSION_PATCH);
    json["status"] = statusOf(report);
    json["exitCode"] =
        report.outcome == Outcome::running ? Json(nullptr) : Json(static_cast<int>(report.status));
    json["line"] = report.line;
    json["warnings"] = report.warnings;
    json["inputs"] = inputsJson(report);
    json["output"] = report.output;
    json["options"] = Json::object();
    for (const auto& [name, word] : report.options) {
        json["options"][name] = word;
    }
    json["threads"] = report.threads == 0 ? Json(nullptr) : Json(report.threads);
    json["splats"] = splatsJson(report);
    json["cells"] = orNull(report.cells);
    json["bytes"] = bytesJson(report);
    json["started"] = timeText(report.started);
    json["seconds"] = Json::object();
    for (const auto& [stage, seconds] : report.times.stages()) {
        json["seconds"][stage] = seconds;
    }
    json["seconds"]["all"] = report.times.all();
    const std::uint64_t peak = peakMemory();
    json["memory"] = {{"planned", orNull(report.plannedMemory)},
                      {"measured", peak > 0 ? Json(peak) : Json(nullptr)}};
    // Paths may contain bytes that are not UTF-8; they are replaced.
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

ReportFile::ReportFile(const std::string& name, const std::string& dataset) : name_(name) {
    if (!name_.empty()) {
        checkTargetFile(name_, true);
        requireOutside(name_, dataset);
        requireReport(name_);
    }
}

void ReportFile::write(const TileReport& report) const {
    if (!name_.empty()) {
        writeWholeFile(pathFromText(name_), reportJson(report));
    }
}

ExitStatus withReport(const ReportFile& file, TileReport& report, const std::function<ExitStatus()>& work,
                      const std::function<void()>& finish) {
    file.write(report);
    const auto end = [&](ExitStatus status) {
        report.status = status;
        report.outcome = report.outcome == Outcome::skipped ? Outcome::skipped : Outcome::ended;
        finish();
        file.write(report);
    };
    ExitStatus status = ExitStatus::done;
    try {
        status = work();
    } catch (const std::exception& error) {
        const Failure failure = failureOf(error);
        report.line = failure.what();
        report.outcome = Outcome::ended;
        try {
            end(failure.status());
        } catch (const Failure& unwritten) {
            reportWarning(unwritten.what());
        }
        throw failure;
    }
    try {
        end(status);
    } catch (const Failure& unwritten) {
        throw Failure(ExitStatus::notTold, unwritten.what());
    }
    return status;
}

} // namespace Tavrin::SplatProgram
