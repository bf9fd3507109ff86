// The line of progress on a terminal.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {

// What a conversion does, in this order.
enum class Stage { measuring, writing, verifying, flushing };

// One line on standard error that is written over, at most six times a second: stage, percentage, splats,
// time elapsed and time left. Not for several threads at once.
class Progress {
public:
    // Shows nothing unless `shown`.
    explicit Progress(bool shown) : shown_(shown), start_(Clock::now()) {}
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { clear(); }

    bool shown() const { return shown_; }

    // `share` of the stage that is done, 0 to 1, and the splats of it where it counts them.
    void update(Stage stage, double share, std::optional<std::uint64_t> splats = {});

    // The same for a run that does nothing else.
    void update(std::string_view task, double share, std::optional<std::uint64_t> splats = {});

    // Removes the line, so that other lines can be written.
    void clear();

    // Since this object was made.
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
    std::size_t lineLength_ = 0; // of what stands on the terminal
};

} // namespace Tavrin::SplatProgram
