#include "program/commands/limit_options.h"

#include "program/terminal/figures.h"

#include <fmt/format.h>

#include <charconv>

namespace Tavrin::SplatProgram {
namespace {

constexpr unsigned mostThreads = 1024;

// Checks of option values: the message for a bad value, empty for a good one.
std::string checkThreads(const std::string& word) {
    unsigned threads = 0;
    const auto [stop, error] = std::from_chars(word.data(), word.data() + word.size(), threads);
    const bool isNumber = error == std::errc() && stop == word.data() + word.size();
    return isNumber && threads >= 1 && threads <= mostThreads
               ? std::string()
               : fmt::format("{} is not a number of threads: write a number from 1 to {}", word, mostThreads);
}

std::string checkMemorySize(const std::string& word) {
    return bytesFrom(word) ? std::string()
                           : fmt::format("{} is not a size: write it like 5000000, 512M or 2G", word);
}

} // namespace

std::uint64_t LimitOptions::memory() const {
    return bytesFrom(maxMemory).value_or(0);
}

void addLimitOptions(CLI::App& command, LimitOptions& options) {
    command.add_option("--threads", options.threads, "use N threads (default: one for each processor)")
        ->type_name("N")
        ->check(checkThreads);
    command.add_option("--max-memory", options.maxMemory, "allocate at most this much, like 512M or 2G")
        ->type_name("SIZE")
        ->check(checkMemorySize);
}

} // namespace Tavrin::SplatProgram
