// Runs a command and measures it from outside: time, processor time, peak memory, and the stages of a
// conversion by its run log.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace measure {

// The stages of a conversion. Lines of the run log separate them.
inline constexpr std::size_t stageCount = 6;
inline constexpr std::array<const char*, stageCount> stageNames{
    "header and scan", // process start to "input data file:"
    "decode",          // to "chunking finished"
    "group",           // to "Index finished ,Start create Data"
    "write data",      // to "Index finished ,Start create Index"
    "index and meta",  // to "All tasks finished"
    "end",             // to the end of the process: memory is given back
};

// The measurements of one run of a command.
struct Run {
    double wall = 0.0;                       // seconds from starting the process to its end
    double cpu = 0.0;                        // seconds, of all its threads, user and system
    double peak = 0.0;                       // peak resident memory in bytes
    std::array<double, stageCount> stages{}; // seconds; zeros if no log was watched
};

// Runs a command (its program is a path) with standard output discarded and waits for it. With a log, that
// file is watched for the lines that separate the stages. With processors > 0 the command runs on that many
// only. Throws std::runtime_error when the command cannot be started, when it does not exit with status 0, or
// when a watched log lacks a line.
Run run(const std::vector<std::string>& command, const std::filesystem::path& log = {}, int processors = 0);

// Makes sure that the next process finds this many bytes of memory at normal speed: a child process fills as
// many and ends. The host of a virtual machine may take back memory that was free for some seconds, and the
// first touch of such memory costs several times as much. Throws std::runtime_error when the memory is not
// available.
void claimMemory(std::uint64_t bytes);

// The median of the values: the middle one, or the mean of the two middle ones. There must be at least one
// value.
double median(std::vector<double> values);

} // namespace measure
