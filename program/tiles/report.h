// What a run did with one tile, as one JSON document for the scripts around it (docs/batch.md).
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

// Changes when a reader of reports has to.
inline constexpr int reportVersion = 1;

// Seconds of the stages that a run goes through, in their order.
class StageTimes {
public:
    StageTimes() : start_(Clock::now()), since_(start_) {}

    // The stage that was running ends, and this one begins. A stage that comes twice is added up.
    void begin(const char* stage);

    // Those that have ended, and the one that is running so far.
    std::vector<std::pair<std::string, double>> stages() const;

    // Since this object was made.
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

// How far a run has come. What it has not found out is missing.
enum class Outcome {
    running, // also of a run that was killed
    ended,   // with the exit status
    skipped, // was done before
};

struct TileReport {
    std::vector<std::string> inputs; // as given; looked at when the report is made
    std::vector<std::optional<InputFile>> files;
    std::string output;                                       // as given
    std::vector<std::pair<std::string, std::string>> options; // those that were given: name, word
    std::int64_t started = timeNow();                         // nanoseconds since 1970
    unsigned threads = 0;

    Outcome outcome = Outcome::running;
    ExitStatus status = ExitStatus::done;
    std::string line; // of the error, or of what was done
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

// The file of --report. It is replaced as a whole, so that a reader sees one report or the next.
class ReportFile {
public:
    // With an empty name there is none. Throws a Failure (OutputRefused) when a report may not be written
    // there: the name is taken by something else than a report, there is no folder for it, or it lies in the
    // dataset.
    ReportFile(const std::string& name, const std::string& dataset);

    // Throws a Failure (OutputRefused).
    void write(const TileReport& report) const;

private:
    std::string name_;
};

// Runs `work`, which fills in the report, and writes the report before, and after it however it ends: with a
// status or an exception. `finish` is called in either case before the last report. Throws the exceptions of
// `work` as Failures, and a Failure (NotTold) when all is done but the report cannot be written.
ExitStatus withReport(const ReportFile& file, TileReport& report, const std::function<ExitStatus()>& work,
                      const std::function<void()>& finish);

} // namespace Tavrin::SplatProgram
