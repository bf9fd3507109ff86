// Turns an end of the process by the library into an exception, in the fuzz targets only: the linker replaces
// the library's functions by those of process_end.cpp (-Wl,--wrap).
#pragma once

namespace fuzz {

// Thrown instead of ending the process from the calling thread. An end from a worker thread, which no small
// file can cause, is a finding.
struct ProcessEnd {
    int status;
};

} // namespace fuzz
