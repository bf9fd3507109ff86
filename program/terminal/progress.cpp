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
constexpr std::array<StageFacts, 4> stages = {
    {{"measuring", 0.28}, {"writing", 0.42}, {"verifying", 0.20}, {"flushing to disk", 0.10}}};

double partBefore(Stage stage) {
    const auto end = stages.begin() + static_cast<std::ptrdiff_t>(stage);
    return std::accumulate(stages.begin(), end, 0.0,
                           [](double sum, const StageFacts& facts) { return sum + facts.part; });
}

} // namespace

void Progress::update(Stage stage, double share, std::optional<std::uint64_t> splats) {
    if (isDue()) {
        const StageFacts& facts = stages[static_cast<std::size_t>(stage)];
        show(facts.name, share, splats, partBefore(stage) + facts.part * std::clamp(share, 0.0, 1.0));
    }
}

void Progress::update(std::string_view task, double share, std::optional<std::uint64_t> splats) {
    if (isDue()) {
        show(task, share, splats, std::clamp(share, 0.0, 1.0));
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

void Progress::show(std::string_view name, double share, std::optional<std::uint64_t> splats, double done) {
    const double elapsed = seconds();
    std::string line = fmt::format("{} {:.0f} %", name, 100.0 * std::clamp(share, 0.0, 1.0));
    if (splats) {
        line += fmt::format(", {}", countText(*splats, "splat", "splats"));
    }
    line += fmt::format(", {}", durationText(elapsed));
    if (done >= leastDone) {
        line += fmt::format(", about {} left", durationText(elapsed * (1.0 - done) / done));
    }
    write(std::move(line));
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
