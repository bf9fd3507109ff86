// The progress line on a terminal.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {

// The stages of a conversion, in order.
enum class Stage { measuring, writing, verifying, flushing };

// One line on standard error, rewritten at most six times a second: stage, percentage, splats, elapsed and
// remaining time. Not thread-safe.
class Progress {
public:
    // Shows nothing unless `shown`.
    explicit Progress(bool shown) : shown_(shown), start_(Clock::now()) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { clear(); }

    bool shown() const { return shown_; }

    // `share` is the part of the stage that is done, 0 to 1. `splats` is the number of splats done, if the
    // stage counts them.
    void update(Stage stage, double share, std::optional<std::uint64_t> splats = {});

    // The same for a command with a single task.
    void update(std::string_view task, double share, std::optional<std::uint64_t> splats = {});

    // Erases the line, so that other output can be written.
    void clear();

    // Seconds since this object was made.
    double seconds() const;

private:
    using Clock = std::chrono::steady_clock;

    // True when a line may be shown now.
    bool isDue();
    // `done` is the share of the whole run, 0 to 1.
    void show(std::string_view name, double share, std::optional<std::uint64_t> splats, double done);
    void write(std::string line);

    bool shown_;
    Clock::time_point start_;
    std::optional<Clock::time_point> lastUpdate_;
    std::size_t lineLength_ = 0; // characters now on the terminal
};

} // namespace Tavrin::SplatProgram
