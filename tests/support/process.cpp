#include "tests/support/process.h"

#include "tests/support/files.h"

#include <stdexcept>
#include <string>

#if defined(_WIN32)
#include <iostream>

#include <windows.h>
#else
#include <cstdlib>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace support {

namespace fs = std::filesystem;

namespace {

struct Captured {
    fs::path output;
    fs::path errors;
};

} // namespace

#if defined(_WIN32)

namespace {

HANDLE createInheritable(const fs::path& path) {
    SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        throw std::runtime_error("cannot write " + path.generic_string());
    }
    return file;
}

// The words hold no quotes and do not end in a backslash.
std::wstring commandLine(const std::vector<std::string>& words) {
    std::wstring line;
    for (const std::string& word : words) {
        line += (line.empty() ? L"\"" : L" \"") + pathFromText(word).native() + L'"';
    }
    return line;
}

void start(const ProcessCommand& command, const Captured& files, ProcessResult& result) {
    for (const auto& [name, value] : command.environment) {
        SetEnvironmentVariableA(name.c_str(), value.c_str());
    }
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = createInheritable(files.output);
    startup.hStdError = createInheritable(files.errors);
    PROCESS_INFORMATION process{};
    // On a busy machine wine now and then fails to start a process, so this tries again.
    constexpr int attempts = 3;
    BOOL started = FALSE;
    DWORD error = 0;
    for (int attempt = 0; attempt < attempts && !started; ++attempt) {
        std::wstring line = commandLine(command.words);
        started = CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                                 &process);
        if (!started) {
            error = GetLastError();
            std::cerr << "error " << error << " when starting " << command.words.front() << '\n';
            Sleep(500);
        }
    }
    CloseHandle(startup.hStdOutput);
    CloseHandle(startup.hStdError);
    for (const auto& entry : command.environment) {
        SetEnvironmentVariableA(entry.first.c_str(), nullptr);
    }
    if (!started) {
        throw std::runtime_error("cannot start " + command.words.front() + ", error " +
                                 std::to_string(error));
    }
    WaitForSingleObject(process.hProcess, INFINITE);
    DWORD status = 0;
    GetExitCodeProcess(process.hProcess, &status);
    CloseHandle(process.hProcess);
    CloseHandle(process.hThread);
    result.exited = true;
    result.status = static_cast<int>(status & 0xFF);
}

} // namespace

#else

namespace {

void redirect(const fs::path& path, int descriptor) {
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (file < 0 || dup2(file, descriptor) < 0) {
        _exit(127);
    }
    close(file);
}

[[noreturn]] void becomeCommand(const ProcessCommand& command, const Captured& files) {
    redirect(files.output, STDOUT_FILENO);
    redirect(files.errors, STDERR_FILENO);
    for (const auto& [name, value] : command.environment) {
        setenv(name.c_str(), value.c_str(), 1);
    }
    std::vector<char*> words;
    for (const std::string& word : command.words) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    execvp(words[0], words.data());
    _exit(127);
}

void start(const ProcessCommand& command, const Captured& files, ProcessResult& result) {
    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error("cannot fork");
    }
    if (child == 0) {
        becomeCommand(command, files);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child) {
        throw std::runtime_error("cannot wait for " + command.words.front());
    }
    result.exited = WIFEXITED(status);
    result.status = result.exited ? WEXITSTATUS(status) : WTERMSIG(status);
}

} // namespace

#endif

ProcessResult runProcess(const ProcessCommand& command) {
    const Captured files{command.capture / "stdout.txt", command.capture / "stderr.txt"};
    ProcessResult result;
    start(command, files, result);
    result.output = withPlainLineEnds(readFile(files.output));
    result.errors = withPlainLineEnds(readFile(files.errors));
    return result;
}

} // namespace support
