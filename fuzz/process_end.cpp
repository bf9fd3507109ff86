#include "fuzz/process_end.h"

#include "fuzz/target.h"

#include <time.h>

namespace fuzz {

// Tavrin::GaussionSplat::endProcess(int) and endProcessFromWorker(int).
[[noreturn]] void throwProcessEnd(int status) __asm__("__wrap__ZN6Tavrin13GaussionSplat10endProcessEi");
[[noreturn]] void
failProcessEnd(int status) __asm__("__wrap__ZN6Tavrin13GaussionSplat20endProcessFromWorkerEi");

void throwProcessEnd(int status) {
    throw ProcessEnd{status};
}

void failProcessEnd(int status) {
    require(false, "no worker ends the process, with status " + std::to_string(status));
    abort();
}

// With the pools' pauses of 10 ms only a few dozen inputs would run each second. Not a yield, which gives the
// rest of the time slice away on a loaded machine.
int systemPause(const timespec* pause, timespec* remaining) __asm__("__real_nanosleep");
int pauseBriefly(const timespec* pause, timespec* remaining) __asm__("__wrap_nanosleep");

int pauseBriefly(const timespec*, timespec*) {
    constexpr timespec brief{.tv_sec = 0, .tv_nsec = 20'000};
    return systemPause(&brief, nullptr);
}

} // namespace fuzz
