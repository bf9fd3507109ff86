// The options that limit threads and memory.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>

namespace Tavrin::SplatProgram {

struct LimitOptions {
    unsigned threads = 0;  // 0: as many as the process may use
    std::string maxMemory; // the text of the option; empty: all free memory

    // maxMemory in bytes; 0 if it is not given.
    std::uint64_t memory() const;
};

// The options must outlive the command.
void addLimitOptions(CLI::App& command, LimitOptions& options);

} // namespace Tavrin::SplatProgram
