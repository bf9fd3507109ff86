#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatProgram {

// Collects what a process writes as lines: blank ones are dropped, and of many or long ones only so much is
// kept that memory stays bounded.
class LineCollector {
public:
    void take(std::string_view text);
    // The line that no line feed ended counts too.
    void finish();
    const std::vector<std::string>& lines() const { return lines_; }

private:
    std::string current_;
    std::vector<std::string> lines_;
};

// How a process ended.
struct ChildEnd {
    int status = 0;     // exit status; meaningless when killed
    std::string killer; // name of the signal that ended it; empty when it ended by itself
};

// This program, started again as a process of its own. It ends with its parent, however that ends. What it
// writes to standard output and standard error is collected and reaches nobody else; its standard input is
// empty. It ignores Ctrl-C, which its parent answers.
class ChildProcess {
public:
    // Throws std::system_error when the process cannot be started.
    explicit ChildProcess(const std::vector<std::string>& arguments);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    // Kills it if it still runs, and waits for its end.
    ~ChildProcess();

    // Waits for the end, at most that long, collecting output. True when it has ended.
    bool waitFor(std::chrono::milliseconds patience);

    // After waitFor returned true.
    const ChildEnd& end() const;
    const std::vector<std::string>& outputLines() const;
    const std::vector<std::string>& errorLines() const;

    // Bytes it has read from files until now; nothing when the system does not tell.
    std::optional<std::uint64_t> bytesRead() const;

private:
    struct State;
    std::unique_ptr<State> state_;
};

} // namespace Tavrin::SplatProgram
