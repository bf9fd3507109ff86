// Runs another program and captures its output.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace support {

struct ProcessResult {
    bool exited = false; // false: a signal ended it, and status is the signal's number
    int status = 0;      // the low 8 bits of the exit status
    std::string output;  // standard output, line ends as LF
    std::string errors;  // standard error, likewise
};

struct ProcessCommand {
    std::vector<std::string> words;                 // program and arguments, UTF-8 on every system
    std::map<std::string, std::string> environment; // added to the caller's own
    std::filesystem::path capture; // folder for the files that standard output and error go to
};

// Runs the command to its end. Throws std::runtime_error when it cannot be started.
ProcessResult runProcess(const ProcessCommand& command);

} // namespace support
