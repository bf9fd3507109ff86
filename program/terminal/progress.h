// The line of progress on a terminal.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {

// What a conversion does, in this order.
enum class Stage { checking, measuring, reading, grouping, writing, verifying, flushing };

// One line on standard error that is written over, at most six times a second: stage, percentage, time
// elapsed and time left.
class Progress {
public:
    // Shows nothing unless `shown`.
    explicit Progress(bool shown) : shown_(shown), start_(Clock::now()) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { clear(); }

    bool shown() const { return shown_; }

    // `share` of the stage that is done, 0 to 1; nothing where that is not known.
    void update(Stage stage, std::optional<double> share = {});

    // The same for a run that does nothing else.
    void update(std::string_view task, double share);

    // Removes the line, so that other lines can be written.
    void clear();

    // Since this object was made.
    double seconds() const;

private:
    using Clock = std::chrono::steady_clock;

    // True when a line may be shown now.
    bool isDue();
    // Seconds until the whole run is done; nothing while it is too early to say.
    std::optional<double> secondsLeft(std::optional<double> share, double now) const;
    void show(std::string_view name, std::optional<double> share, std::optional<double> left);
    void write(std::string line);

    bool shown_;
    Clock::time_point start_;
    std::optional<Clock::time_point> lastUpdate_;
    Stage stage_ = Stage::checking;
    double stageStart_ = 0.0;    // seconds since the start
    std::size_t lineLength_ = 0; // of what stands on the terminal
};

} // namespace Tavrin::SplatProgram
