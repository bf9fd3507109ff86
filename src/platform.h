// What differs between systems: paths, the end of a process, the float environment, the standard streams.
#pragma once

#include <cfenv>
#include <cstdint>
#include <filesystem>
#include <string>

namespace Tavrin::GaussionSplat {

// A narrow path as the file-system functions want it. UTF-8 on Linux. On Windows the code page is UTF-8 when
// the runtime's locale code page is 65001, else the ANSI code page, or the OEM code page when the file
// functions use that.
std::filesystem::path nativePath(const std::string& path);

// The text after the last '/' or '\' that follows the root name; a root name is a drive letter with its
// colon, or the server part of a network path. Both separators count on every system, since source paths are
// written by compilers.
std::string lastPathComponent(const std::string& path);

// End the process with a status, running the exit handlers of the host. For the thread that called the
// library while no worker runs.
[[noreturn]] void endProcess(int status);

// The same from a worker thread: standard output is flushed and the process ends at once, so that no static
// destructor runs beside the other workers.
[[noreturn]] void endProcessFromWorker(int status);

// Sets the default floating-point environment, whatever rounding mode or flushing of subnormals the host has
// set, and restores the host's own when the object dies.
struct DefaultFloatEnvironment {
    std::fenv_t environment;    // the host's
    unsigned vectorControl = 0; // the host's MXCSR, where the environment may not hold it

    DefaultFloatEnvironment();
    ~DefaultFloatEnvironment();
    DefaultFloatEnvironment(const DefaultFloatEnvironment&) = delete;
    DefaultFloatEnvironment& operator=(const DefaultFloatEnvironment&) = delete;
};

// Standard streams that the host has closed lead nowhere for as long as the object lives: otherwise the
// system gives their descriptors to the next files that are opened, and what is printed ends up in those.
//
// What still leads nowhere at the end is closed again. A descriptor that a thread of the host has given to a
// file of its own meanwhile stays open.
struct StandardStreams {
    // What fstat says of a descriptor that was opened here.
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
