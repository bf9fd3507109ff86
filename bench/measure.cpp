#include "bench/measure.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace measure {

namespace {

using Clock = std::chrono::steady_clock;

// The lines that end every stage but the last.
constexpr std::array<std::string_view, stageCount - 1> stageEnds{
    "input data file:", "chunking finished", "Start create Data", "Start create Index", "All tasks finished"};

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// Records when each line first appears in the log.
class LogWatch {
public:
    explicit LogWatch(std::filesystem::path path) : log_(std::move(path)) {}

    void look() {
        std::error_code error;
        const std::uintmax_t size = std::filesystem::file_size(log_, error);
        if (error || size == seenSize_) {
            return;
        }
        const Clock::time_point now = Clock::now();
        std::ifstream file(log_, std::ios::binary);
        const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
        seenSize_ = text.size();
        while (found_ < stageEnds.size() && text.find(stageEnds[found_]) != std::string::npos) {
            times_[found_++] = now;
        }
    }

    std::array<double, stageCount> stages(Clock::time_point start, Clock::time_point end) const {
        if (found_ != stageEnds.size()) {
            throw std::runtime_error("the run log lacks the line \"" + std::string(stageEnds[found_]) + "\"");
        }
        std::array<double, stageCount> result{};
        for (std::size_t k = 0; k < stageCount; ++k) {
            // A line found only after the process has ended was written before its end.
            const Clock::time_point from = k == 0 ? start : std::min(times_[k - 1], end);
            result[k] = secondsBetween(from, k + 1 == stageCount ? end : std::min(times_[k], end));
        }
        return result;
    }

private:
    std::filesystem::path log_;
    std::uintmax_t seenSize_ = 0;
    std::size_t found_ = 0;
    std::array<Clock::time_point, stageCount - 1> times_{};
};

// Restricts this thread and its children to the first `count` processors that it may use. The destructor
// restores the others.
class Processors {
public:
    explicit Processors(int count) {
        if (sched_getaffinity(0, sizeof before_, &before_) != 0) {
            throw std::runtime_error("cannot tell which processors there are");
        }
        if (count <= 0) {
            return;
        }
        cpu_set_t few;
        CPU_ZERO(&few);
        int left = count;
        for (int k = 0; k < CPU_SETSIZE && left > 0; ++k) {
            if (CPU_ISSET(k, &before_)) {
                CPU_SET(k, &few);
                --left;
            }
        }
        if (left > 0 || sched_setaffinity(0, sizeof few, &few) != 0) {
            throw std::runtime_error("cannot keep to " + std::to_string(count) + " processors");
        }
    }
    ~Processors() { sched_setaffinity(0, sizeof before_, &before_); }
    Processors(const Processors&) = delete;
    Processors& operator=(const Processors&) = delete;

private:
    cpu_set_t before_;
};

pid_t start(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& word : command) {
        arguments.push_back(const_cast<char*>(word.c_str())); // posix_spawn does not change them
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = 0;
    const int error = posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw std::runtime_error("cannot start " + command[0] + ": " + std::strerror(error));
    }
    return child;
}

// A descriptor that becomes readable when the process ends. The caller closes it.
int watchProcess(pid_t process) {
    const auto descriptor = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    if (descriptor < 0) {
        throw std::runtime_error(std::string("cannot watch a process: ") + std::strerror(errno));
    }
    return descriptor;
}

// Milliseconds to wait before reading the log again: a fiftieth of the time that has passed, from 1 to 10.
// Every read takes a processor from the command, which has work for all of them. At one read every half
// millisecond 3,000,000 splats took 5 % longer.
int untilNextLook(Clock::duration passed) {
    const auto fiftieth = std::chrono::duration_cast<std::chrono::milliseconds>(passed / 50).count();
    return static_cast<int>(std::clamp<std::int64_t>(fiftieth, 1, 10));
}

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
}

} // namespace

void claimMemory(std::uint64_t bytes) {
    constexpr std::uint64_t page = 4096;
    // In a child, because later children would inherit the peak memory of this process.
    const pid_t child = fork();
    if (child == 0) {
        void* const memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            _exit(1);
        }
        (void)madvise(memory, bytes, MADV_HUGEPAGE);
        for (std::uint64_t at = 0; at < bytes; at += page) {
            static_cast<volatile char*>(memory)[at] = 1;
        }
        _exit(0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error("cannot have " + std::to_string(bytes) + " bytes of memory");
    }
}

Run run(const std::vector<std::string>& command, const std::filesystem::path& log, int processors) {
    Run result;
    LogWatch watch(log);
    const Clock::time_point begin = Clock::now();
    pid_t child = 0;
    {
        const Processors few(processors);
        child = start(command);
    }
    if (!log.empty()) {
        pollfd process{.fd = watchProcess(child), .events = POLLIN, .revents = 0};
        while (poll(&process, 1, untilNextLook(Clock::now() - begin)) != 1) {
            watch.look();
        }
        close(process.fd);
    }
    int status = 0;
    rusage usage{};
    const pid_t ended = wait4(child, &status, 0, &usage);
    const Clock::time_point end = Clock::now();
    if (ended < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error(command[0] + " failed");
    }
    if (!log.empty()) {
        watch.look();
        result.stages = watch.stages(begin, end);
    }
    result.wall = secondsBetween(begin, end);
    result.cpu = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    result.peak = 1024.0 * static_cast<double>(usage.ru_maxrss);
    return result;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : 0.5 * (values[middle - 1] + values[middle]);
}

} // namespace measure
