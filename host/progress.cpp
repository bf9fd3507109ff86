#include "progress.h"

#include "figures.h"
#include "platform.h"

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>

namespace Tavrin::SplatProgram {

namespace {
constexpr std::chrono::milliseconds leastInterval(170); // less than six updates a second
} // namespace

void Progress::update(std::string_view stage, std::optional<double> share,
                      std::optional<double> secondsLeft) {
    const Clock::time_point now = Clock::now();
    if (!m_shown || (m_lastUpdate && now - *m_lastUpdate < leastInterval)) {
        return;
    }
    m_lastUpdate = now;
    std::string line(stage);
    if (share) {
        line += fmt::format(" {:.0f} %", 100.0 * std::clamp(*share, 0.0, 1.0));
    }
    line += fmt::format(", {}", durationText(seconds()));
    if (secondsLeft) {
        line += fmt::format(", about {} left", durationText(*secondsLeft));
    }
    write(std::move(line));
}

void Progress::clear() {
    if (m_lineLength > 0) {
        write("");
        std::fputc('\r', stderr);
        m_lineLength = 0;
    }
}

double Progress::seconds() const {
    return std::chrono::duration<double>(Clock::now() - m_start).count();
}

// Only carriage returns and blanks are used, which every terminal knows. A line as wide as the terminal would
// wrap.
void Progress::write(std::string line) {
    line.resize(std::min<std::size_t>(line.size(), terminalColumns() - 1));
    const std::size_t length = line.size();
    line.append(m_lineLength > length ? m_lineLength - length : 0, ' ');
    line.insert(line.begin(), '\r');
    std::fwrite(line.data(), 1, line.size(), stderr);
    m_lineLength = length;
}

} // namespace Tavrin::SplatProgram
