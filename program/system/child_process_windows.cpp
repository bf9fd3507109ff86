#include "program/system/child_process.h"

#include "program/system/handle_windows.h"
#include "program/system/text_windows.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <system_error>

#include <windows.h>

namespace Tavrin::SplatProgram {
namespace {

constexpr DWORD pipeBytes = 65536;

[[noreturn]] void throwLastError(const char* what) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

// For a handle that the child process gets.
SECURITY_ATTRIBUTES inheritable() {
    return {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
}

struct Pipe {
    Handle read;
    Handle write; // the child's

    Pipe() {
        SECURITY_ATTRIBUTES inherit = inheritable();
        HANDLE readEnd = nullptr;
        HANDLE writeEnd = nullptr;
        if (!CreatePipe(&readEnd, &writeEnd, &inherit, pipeBytes)) {
            throwLastError("CreatePipe");
        }
        read = Handle(readEnd);
        write = Handle(writeEnd);
        SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
    }
};

// A word of a command line, in quotes, as the runtime takes it apart again: a backslash stands for itself
// unless it is before a quote.
std::wstring quoted(const std::wstring& word) {
    std::wstring text = L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t c : word) {
        if (c == L'"') {
            text.append(backslashes + 1, L'\\');
        }
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        text += c;
    }
    text.append(backslashes, L'\\');
    return text + L'"';
}

std::wstring ownProgram() {
    constexpr std::size_t longestPath = 32768;
    std::wstring path(longestPath, L'\0');
    const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    if (length == 0) {
        throwLastError("GetModuleFileName");
    }
    path.resize(length);
    return path;
}

// A job whose processes end when its only handle is closed, which the system does at the latest when this
// process ends.
Handle endingJob() {
    Handle job(CreateJobObjectW(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (!job ||
        !SetInformationJobObject(job.get(), JobObjectExtendedLimitInformation, &limits, sizeof limits)) {
        throwLastError("CreateJobObject");
    }
    return job;
}

// Moves what the pipe holds into the collector, without waiting.
void drain(const Handle& pipe, LineCollector& collector) {
    std::array<char, pipeBytes> buffer;
    DWORD available = 0;
    while (PeekNamedPipe(pipe.get(), nullptr, 0, nullptr, &available, nullptr) && available > 0) {
        DWORD count = 0;
        if (!ReadFile(pipe.get(), buffer.data(), static_cast<DWORD>(buffer.size()), &count, nullptr)) {
            return;
        }
        collector.take({buffer.data(), count});
    }
}

// The name of what ended a process with this status; empty when it ended by itself.
std::string killerOf(DWORD status) {
    constexpr DWORD severityShift = 28; // the status of an exception that nobody caught begins with 0xC
    return status >> severityShift == 0xC ? fmt::format("exception 0x{:08X}", status) : std::string();
}

} // namespace

struct ChildProcess::State {
    Pipe output;
    Pipe error;
    LineCollector outputLines;
    LineCollector errorLines;
    Handle job;
    Handle process;
    bool hasEnded = false;
    ChildEnd end;
};

ChildProcess::ChildProcess(const std::vector<std::string>& arguments) : state_(std::make_unique<State>()) {
    const std::wstring program = ownProgram();
    std::wstring line = L"plyconvert";
    for (const std::string& argument : arguments) {
        line += L' ' + quoted(wideFromText(argument));
    }
    SECURITY_ATTRIBUTES inherit = inheritable();
    const Handle nothing(CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                                     OPEN_EXISTING, 0, nullptr));
    STARTUPINFOW startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = nothing.get();
    startup.hStdOutput = state_->output.write.get();
    startup.hStdError = state_->error.write.get();
    state_->job = endingJob();
    // What the child inherits: a crash ends it without a window that asks what to do.
    SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
    // Without a console no Ctrl-C reaches it. It runs once it is in the job.
    PROCESS_INFORMATION started = {};
    if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE,
                        DETACHED_PROCESS | CREATE_SUSPENDED, nullptr, nullptr, &startup, &started)) {
        throwLastError("CreateProcess");
    }
    state_->process = Handle(started.hProcess);
    const Handle thread(started.hThread);
    if (!AssignProcessToJobObject(state_->job.get(), started.hProcess) ||
        ResumeThread(thread.get()) == static_cast<DWORD>(-1)) {
        const DWORD error = GetLastError();
        TerminateProcess(started.hProcess, 1);
        SetLastError(error);
        throwLastError("AssignProcessToJobObject");
    }
    state_->output.write.close();
    state_->error.write.close();
}

ChildProcess::~ChildProcess() {
    if (!state_->hasEnded) {
        TerminateProcess(state_->process.get(), 1);
        WaitForSingleObject(state_->process.get(), INFINITE);
    }
}

bool ChildProcess::waitFor(std::chrono::milliseconds patience) {
    State& state = *state_;
    if (state.hasEnded) {
        return true;
    }
    // Nothing can wait for a pipe and a process at once; the converter must not wait long for room in a pipe.
    constexpr std::chrono::milliseconds slice(10);
    bool ended = false;
    for (auto left = patience; !ended && left.count() > 0; left -= std::min(left, slice)) {
        ended = WaitForSingleObject(state.process.get(), static_cast<DWORD>(std::min(left, slice).count())) ==
                WAIT_OBJECT_0;
        drain(state.output.read, state.outputLines);
        drain(state.error.read, state.errorLines);
    }
    if (ended) {
        DWORD status = 0;
        GetExitCodeProcess(state.process.get(), &status);
        state.hasEnded = true;
        state.end.status = static_cast<int>(status);
        state.end.killer = killerOf(status);
        state.outputLines.finish();
        state.errorLines.finish();
    }
    return ended;
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
    IO_COUNTERS counters = {};
    return GetProcessIoCounters(state_->process.get(), &counters) ? std::optional(counters.ReadTransferCount)
                                                                  : std::nullopt;
}

} // namespace Tavrin::SplatProgram
