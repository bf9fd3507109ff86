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

constexpr std::chrono::milliseconds leastInterval(170); // at most six updates a second
constexpr double leastDone = 0.04; // below this share the estimate of the remaining time is too uncertain

// Control sequences (ECMA-48 and DEC) that all common terminals understand.
constexpr std::string_view eraseBelow = "\x1b[J"; // from the cursor on
constexpr std::string_view wrapOff = "\x1b[?7l";
constexpr std::string_view wrapOn = "\x1b[?7h";

struct StageFacts {
    const char* name;
    // Share of the whole time, measured with millions of splats on two cores. Only the estimate uses it.
    double part;
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

// The cursor stays in the first column. When a terminal becomes narrower it may break the line in two; the
// cursor then stays at the start of the first part, so erasing below removes both. Wrapping is switched off
// while the line is written, because a line as wide as the terminal would wrap, and so would a line written
// while the terminal shrinks.
void Progress::write(std::string line) {
    const std::size_t room = terminalColumns() - 1;
    line.resize(std::min(line.size(), room));
    const std::size_t length = line.size();
    if (!standardErrorTakesSequences()) {
        line.append(std::min(std::max(lineLength_, length), room) - length, ' ');
        line = fmt::format("\r{}\r", line);
    } else {
        // Erasing comes last, because some terminals ignore a request to erase everything that they show.
        line = fmt::format("\r{}{}{}{}\r", wrapOff, line.empty() ? " " : line, eraseBelow, wrapOn);
    }
    std::fwrite(line.data(), 1, line.size(), stderr);
    lineLength_ = length;
}

} // namespace Tavrin::SplatProgram
