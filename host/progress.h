#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {

// One line on standard error that is written over, at most six times a second: stage, percentage, time
// elapsed and time left.
class Progress {
public:
    // Shows nothing unless `shown`.
    explicit Progress(bool shown) : m_shown(shown), m_start(Clock::now()) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { clear(); }

    bool shown() const { return m_shown; }

    // `share` of the stage that is done, 0 to 1, and seconds that the whole run still takes; nothing where
    // unknown.
    void update(std::string_view stage, std::optional<double> share = {},
                std::optional<double> secondsLeft = {});

    // Removes the line, so that other lines can be written.
    void clear();

    // Since this object was made.
    double seconds() const;

private:
    using Clock = std::chrono::steady_clock;

    void write(std::string line);

    bool m_shown;
    Clock::time_point m_start;
    std::optional<Clock::time_point> m_lastUpdate;
    std::size_t m_lineLength = 0; // of what stands on the terminal
};

} // namespace Tavrin::SplatProgram
