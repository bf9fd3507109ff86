#include "program/system/child_process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Tavrin::SplatProgram {
namespace {

[[noreturn]] void throwLastError(const char* what) {
    throw std::system_error(errno, std::system_category(), what);
}

struct Pipe {
    int read = -1;
    int write = -1;

    Pipe() {
        std::array<int, 2> ends = {};
        if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
            throwLastError("pipe");
        }
        read = ends[0];
        write = ends[1];
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe() {
        closeEnd(read);
        closeEnd(write);
    }

    static void closeEnd(int& end) {
        if (end >= 0) {
            ::close(end);
            end = -1;
        }
    }
};

// Runs between fork and exec, where only calls that are safe in a signal handler are allowed.
[[noreturn]] void becomeChild(pid_t parent, int output, int error, char* const* arguments) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int nothing = ::open("/dev/null", O_RDONLY);
    // The parent may have ended before it could be asked for the signal.
    const bool isReady = ::getppid() == parent && nothing >= 0 && ::dup2(nothing, STDIN_FILENO) >= 0 &&
                         ::dup2(output, STDOUT_FILENO) >= 0 && ::dup2(error, STDERR_FILENO) >= 0;
    ::signal(SIGINT, SIG_IGN);
    ::signal(SIGHUP, SIG_IGN);
    if (isReady) {
        ::execv("/proc/self/exe", arguments);
    }
    constexpr int cannotExecute = 127; // as shells report it
    ::_exit(cannotExecute);
}

std::string signalName(int number) {
    const char* name = ::sigabbrev_np(number);
    return name != nullptr ? std::string("SIG") + name : "signal " + std::to_string(number);
}

// Moves what the pipe holds into the collector. False at its end.
bool drain(int pipe, LineCollector& collector) {
    std::array<char, 65536> buffer;
    const ssize_t count = ::read(pipe, buffer.data(), buffer.size());
    if (count > 0) {
        collector.take({buffer.data(), static_cast<std::size_t>(count)});
        return true;
    }
    return count < 0 && (errno == EINTR || errno == EAGAIN);
}

} // namespace

struct ChildProcess::State {
    Pipe output;
    Pipe error;
    LineCollector outputLines;
    LineCollector errorLines;
    pid_t process = -1;
    bool hasEnded = false;
    ChildEnd end;

    // Waits for the end and notes how it came.
    void reap() {
        int status = 0;
        while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
        }
        hasEnded = true;
        end.status = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
        end.killer = WIFSIGNALED(status) ? signalName(WTERMSIG(status)) : std::string();
        outputLines.finish();
        errorLines.finish();
    }
};

ChildProcess::ChildProcess(const std::vector<std::string>& arguments) : state_(std::make_unique<State>()) {
    std::string name = "plyconvert";
    std::vector<std::string> words = arguments;
    std::vector<char*> pointers = {name.data()};
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    const pid_t parent = ::getpid();
    state_->process = ::fork();
    if (state_->process < 0) {
        throwLastError("fork");
    }
    if (state_->process == 0) {
        becomeChild(parent, state_->output.write, state_->error.write, pointers.data());
    }
    Pipe::closeEnd(state_->output.write);
    Pipe::closeEnd(state_->error.write);
}

ChildProcess::~ChildProcess() {
    if (!state_->hasEnded) {
        ::kill(state_->process, SIGKILL);
        state_->reap();
    }
}

bool ChildProcess::waitFor(std::chrono::milliseconds patience) {
    State& state = *state_;
    if (state.hasEnded) {
        return true;
    }
    std::array<pollfd, 2> pipes = {{{state.output.read, POLLIN, 0}, {state.error.read, POLLIN, 0}}};
    if (::poll(pipes.data(), pipes.size(), static_cast<int>(patience.count())) <= 0) {
        return false;
    }
    if (pipes[0].revents != 0 && !drain(state.output.read, state.outputLines)) {
        Pipe::closeEnd(state.output.read);
    }
    if (pipes[1].revents != 0 && !drain(state.error.read, state.errorLines)) {
        Pipe::closeEnd(state.error.read);
    }
    // The process holds the other ends until it ends.
    if (state.output.read < 0 && state.error.read < 0) {
        state.reap();
    }
    return state.hasEnded;
}

const ChildEnd& ChildProcess::end() const {
    return state_->end;
}

const std::vector<std::string>& ChildProcess::outputLines() const {
    return state_->outputLines.lines();
}

const std::vector<std::string>& ChildProcess::errorLines() const {
    return state_->errorLines.lines();
}

std::optional<std::uint64_t> ChildProcess::bytesRead() const {
    std::ifstream file("/proc/" + std::to_string(state_->process) + "/io");
    for (std::string word; file >> word;) {
        std::uint64_t number = 0;
        if (word == "rchar:" && file >> number) {
            return number;
        }
    }
    return std::nullopt;
}

} // namespace Tavrin::SplatProgram
