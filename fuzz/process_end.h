// The library's ends of the process, turned into an exception inside the fuzz targets alone: the linker puts
// the functions of process_end.cpp in the place of the library's own (-Wl,--wrap).
#pragma once

namespace fuzz {

// Thrown instead of ending the process from the calling thread. An end from a worker thread, which no small
// file can cause, is a finding.
struct ProcessEnd {
    int status;
};

} // namespace fuzz
