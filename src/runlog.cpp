#include "src/runlog.h"

#include "src/platform.h"

#include <fstream>
#include <iostream>
#include <locale>
#include <memory>
#include <mutex>

namespace Tavrin::GaussionSplat {

namespace {

struct RunLog {
    std::shared_ptr<std::ofstream> stream; // empty until the first openRunLog of the process
    std::mutex mutex;                      // serialises the writes to the stream
};

// Made while the library is loaded, at the latest: not every system's mutex is a constant expression.
RunLog runLog;

std::string formLine(const char* prefix, const std::string& message, const std::string& sourcePath,
                     std::int32_t line) {
    return prefix + lastPathComponent(sourcePath) + ":" + std::to_string(line) + "): " + message;
}

void writeToFile(const std::string& text) {
    if (!runLog.stream) {
        return;
    }
    const std::lock_guard lock(runLog.mutex);
    *runLog.stream << text << std::endl;
}

} // namespace

void openRunLog(std::string path) {
    closeRunLog();
    runLog.stream = std::make_shared<std::ofstream>();
    runLog.stream->imbue(std::locale::classic());
    runLog.stream->open(nativePath(path), std::ios::out | std::ios::trunc);
}

void logInfo(std::string message, std::string sourcePath, std::int32_t line) {
    writeToFile(formLine("INFO(", message, sourcePath, line));
}

std::string infoLine(const RunLogLine& line, const std::string& rest) {
    return formLine("INFO(", line.message + rest, line.sourcePath, line.line);
}

void logInfo(const RunLogLine& line, const std::string& rest) {
    writeToFile(infoLine(line, rest));
}

void logError(std::string message, std::string sourcePath, std::int32_t line) {
    const std::string text = formLine("ERROR(", message, sourcePath, line);
    {
        const std::unique_lock lock = lockStandardOutput();
        std::cout << text + '\n' << std::flush;
    }
    writeToFile(text);
}

void closeRunLog() {
    if (runLog.stream && runLog.stream->is_open()) {
        runLog.stream->close();
    }
}

} // namespace Tavrin::GaussionSplat
