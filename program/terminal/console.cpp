#include "program/terminal/console.h"

#include "program/system/exit_status.h"

#include <fmt/format.h>

#include <cstdio>

namespace Tavrin::SplatProgram {

std::string printable(std::string_view text) {
    std::string shown;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            shown += fmt::format("\\x{:02x}", byte);
        } else {
            shown += c;
        }
    }
    return shown;
}

namespace {
void report(std::string_view kind, std::string_view line) {
    // One write for the whole line, so that lines of parallel runs on one terminal do not mix.
    const std::string text = fmt::format("plyconvert: {}: {}\n", kind, printable(line));
    std::fwrite(text.data(), 1, text.size(), stderr);
}
} // namespace

void reportError(std::string_view line) {
    report("error", line);
}

void reportWarning(std::string_view line) {
    report("warning", line);
}

bool finishStandardOutput() {
    return std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
}

void requireStandardOutput() {
    if (!finishStandardOutput()) {
        throw Failure(ExitStatus::notTold,
                      "standard output could not be written: is the disk full or the pipe closed?");
    }
}

} // namespace Tavrin::SplatProgram
