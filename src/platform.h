// What differs between systems: paths, the end of a process, the float environment, the standard streams.
#pragma once

#include <cfenv>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>

namespace Tavrin::GaussionSplat {

// A narrow path in the form that file-system functions take. It is UTF-8 on Linux. On Windows it is UTF-8
// when the code page of the runtime's locale is 65001. Otherwise it is in the ANSI code page, or in the OEM
// code page when the file functions use that.
std::filesystem::path nativePath(const std::string& path);

// The text after the last '/' or '\' that follows the root name. A root name is a drive letter with its
// colon, or the server part of a network path. Both separators count on every system, because compilers write
// the source paths.
std::string lastPathComponent(const std::string& path);

// Takes the lock under which the library's threads write to standard output. A host may have called
// sync_with_stdio(false): std::cout then has a buffer that threads must not share.
std::unique_lock<std::mutex> lockStandardOutput();

// End the process with a status and run the host's exit handlers. For the thread that called the library,
// while no worker runs.
[[noreturn]] void endProcess(int status);

// End the process from a worker thread. Standard output is flushed, under its lock, and the process ends at
// once, so no static destructor runs beside the other workers.
[[noreturn]] void endProcessFromWorker(int status);

// Sets the default floating-point environment, whatever rounding mode or flushing of subnormals the host has
// set. The destructor restores the host's own.
struct DefaultFloatEnvironment {
    std::fenv_t environment;    // the host's
    unsigned vectorControl = 0; // the host's MXCSR, where the environment may not hold it

    DefaultFloatEnvironment();
    ~DefaultFloatEnvironment();
    DefaultFloatEnvironment(const DefaultFloatEnvironment&) = delete;
    DefaultFloatEnvironment& operator=(const DefaultFloatEnvironment&) = delete;
};

// Opens the standard streams that the host has closed to nowhere, for as long as the object lives. Otherwise
// the system would give their descriptors to the next files opened, and printed text would end up in those.
//
// The destructor closes those that still lead nowhere. A descriptor stays open if a thread of the host has
// meanwhile given it to a file of its own.
struct StandardStreams {
    // What fstat says of a descriptor opened here.
    struct Opened {
        bool isOpen = false;
        std::uint64_t device = 0;
        std::uint64_t file = 0;
    };
    Opened opened[3]; // by descriptor

    StandardStreams();
    ~StandardStreams();
    StandardStreams(const StandardStreams&) = delete;
    StandardStreams& operator=(const StandardStreams&) = delete;
};

} // namespace Tavrin::GaussionSplat
