#include "program/terminal/progress.h"

#include "program/system/platform.h"
#include "program/terminal/figures.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <numeric>

namespace Tavrin::SplatProgram {
namespace {

constexpr std::chrono::milliseconds leastInterval(170); // less than six updates a second
constexpr double leastDone = 0.04;                      // before that the estimate jumps

// Control sequences (ECMA-48 and DEC), which every terminal of today takes.
constexpr std::string_view eraseBelow = "\x1b[J"; // from the cursor on
constexpr std::string_view wrapOff = "\x1b[?7l";
constexpr std::string_view wrapOn = "\x1b[?7h";

struct StageFacts {
    const char* name;
    double
        part; // of the whole time, as it is for millions of splats on two cores; it only shapes the estimate
};
constexpr std::array<StageFacts, 7> stages = {{{"checking the input", 0.08},
                                               {"measuring the box", 0.05},
                                               {"reading splats", 0.28},
                                               {"grouping by cell", 0.23},
                                               {"writing", 0.11},
                                               {"verifying", 0.19},
                                               {"flushing to disk", 0.06}}};

double partBefore(Stage stage) {
    const auto end = stages.begin() + static_cast<std::ptrdiff_t>(stage);
    return std::accumulate(stages.begin(), end, 0.0,
                           [](double sum, const StageFacts& facts) { return sum + facts.part; });
}

} // namespace

void Progress::update(Stage stage, std::optional<double> share) {
    const double now = seconds();
    if (stage != stage_) {
        stage_ = stage;
        stageStart_ = now;
    }
    if (isDue()) {
        show(stages[static_cast<std::size_t>(stage)].name, share, secondsLeft(share, now));
    }
}

void Progress::update(std::string_view task, double share) {
    if (isDue()) {
        show(task, share,
             share < leastDone ? std::nullopt
                               : std::optional(seconds() * std::max(0.0, 1.0 - share) / share));
    }
}

bool Progress::isDue() {
    const Clock::time_point now = Clock::now();
    if (!shown_ || (lastUpdate_ && now - *lastUpdate_ < leastInterval)) {
        return false;
    }
    lastUpdate_ = now;
    return true;
}

void Progress::show(std::string_view name, std::optional<double> share, std::optional<double> left) {
    std::string line(name);
    if (share) {
        line += fmt::format(" {:.0f} %", 100.0 * std::clamp(*share, 0.0, 1.0));
    }
    line += fmt::format(", {}", durationText(seconds()));
    if (left) {
        line += fmt::format(", about {} left", durationText(*left));
    }
    write(std::move(line));
}

std::optional<double> Progress::secondsLeft(std::optional<double> share, double now) const {
    const double before = partBefore(stage_);
    const double part = stages[static_cast<std::size_t>(stage_)].part;
    if (share) {
        const double done = before + part * std::clamp(*share, 0.0, 1.0);
        return done < leastDone ? std::nullopt : std::optional(now * (1.0 - done) / done);
    }
    if (before < leastDone) {
        return std::nullopt;
    }
    // How far a stage without a share is, the time it has taken tells, until that exceeds its part.
    const double whole = stageStart_ / before;
    return whole * (1.0 - before) - std::min(now - stageStart_, whole * part);
}

void Progress::clear() {
    if (lineLength_ > 0) {
        write("");
    }
}

double Progress::seconds() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
}

// The cursor rests on the first column. A terminal that becomes narrower may break the line in two, and then
// keeps the cursor at the start of the first: what is below is erased with it. A line as wide as the terminal
// would wrap, and so would one that is written while the terminal shrinks, unless it is told not to.
void Progress::write(std::string line) {
    const std::size_t room = terminalColumns() - 1;
    line.resize(std::min(line.size(), room));
    const std::size_t length = line.size();
    if (!standardErrorTakesSequences()) {
        line.append(std::min(std::max(lineLength_, length), room) - length, ' ');
        line = fmt::format("\r{}\r", line);
    } else {
        // Erasing comes last: some terminals keep what they show when they are told to erase all of it.
        line = fmt::format("\r{}{}{}{}\r", wrapOff, line.empty() ? " " : line, eraseBelow, wrapOn);
    }
    std::fwrite(line.data(), 1, line.size(), stderr);
    lineLength_ = length;
}

} // namespace Tavrin::SplatProgram
