// The options that say what a conversion may use.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>

namespace Tavrin::SplatProgram {

struct LimitOptions {
    unsigned threads = 0;  // 0: as many as the process may use
    std::string maxMemory; // as the word of the command line; empty: what is free

    // Bytes; 0 where it is not given.
    std::uint64_t memory() const;
};

// The options must outlive the command.
void addLimitOptions(CLI::App& command, LimitOptions& options);

} // namespace Tavrin::SplatProgram
