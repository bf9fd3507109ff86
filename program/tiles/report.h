// The report of a run: what it did with one tile, as a JSON document for scripts (docs/batch.md).
#pragma once

#include "program/convert/summary.h"
#include "program/system/exit_status.h"
#include "program/tiles/input_file.h"
#include "source/drop.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Tavrin::SplatProgram {

// Raised when readers of reports have to change.
inline constexpr int reportVersion = 1;

// Measures the seconds that each stage of a run takes.
class StageTimes {
public:
    StageTimes() : start_(Clock::now()), since_(start_) {}

    // Ends the running stage and begins this one. The times of a stage that is begun twice are added.
    void begin(const char* stage);

    // Name and seconds of the stages in order, the running one with its time so far.
    std::vector<std::pair<std::string, double>> stages() const;

    // Seconds since this object was made.
    double all() const { return seconds(start_, Clock::now()); }

private:
    using Clock = std::chrono::steady_clock;

    static double seconds(Clock::time_point from, Clock::time_point to) {
        return std::chrono::duration<double>(to - from).count();
    }

    Clock::time_point start_;
    Clock::time_point since_; // of the stage that is running
    std::string running_;
    std::vector<std::pair<std::string, double>> ended_;
};

// How far a run has come.
enum class Outcome {
    running, // also the last state of a run that was killed
    ended,   // with the exit status
    skipped, // an earlier run had made the dataset
};

struct TileReport {
    std::vector<std::string> inputs; // as given
    std::vector<std::optional<InputFile>> files;
    std::string output;                                       // as given
    std::vector<std::pair<std::string, std::string>> options; // name and text of those that were given
    std::int64_t started = timeNow();                         // nanoseconds since 1970
    unsigned threads = 0;

    Outcome outcome = Outcome::running;
    ExitStatus status = ExitStatus::done;
    std::string line; // the error, or the summary
    std::vector<std::string> warnings;

    std::optional<SplatSource::Ledger> ledger; // read and dropped
    std::optional<std::uint64_t> written;
    std::optional<std::uint64_t> leftOut;
    std::optional<std::uint64_t> cells;
    std::optional<std::array<std::uint64_t, 4>> bytes; // data, coefficients, index, meta document
    std::optional<std::uint64_t> plannedMemory;        // bytes
    StageTimes times;

    void take(const Summary& summary);
};

// One JSON object on one line.
std::string reportJson(const TileReport& report);

// The file of --report. Each write replaces the whole file, so that a reader never sees half a report.
class ReportFile {
public:
    // An empty name means no report. Throws a Failure (OutputRefused) when the report may not be written
    // there: the name belongs to something other than a report, its folder is missing, or it lies in the
    // dataset's folder.
    ReportFile(const std::string& name, const std::string& dataset);

    // Throws a Failure (OutputRefused).
    void write(const TileReport& report) const;

private:
    std::string name_;
};

// Runs `work`, which fills in the report. Writes the report before `work` and after it, whether it returns a
// status or throws. Calls `finish` before the last report in either case. Throws the exceptions of `work` as
// Failures. Throws a Failure (NotTold) when the work is done but the report cannot be written.
ExitStatus withReport(const ReportFile& file, TileReport& report, const std::function<ExitStatus()>& work,
                      const std::function<void()>& finish);

} // namespace Tavrin::SplatProgram
