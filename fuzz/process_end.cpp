#include "fuzz/process_end.h"

#include "fuzz/target.h"

#include <sched.h>
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

// The pools' pauses of 10 ms would leave a few dozen inputs a second.
int yieldInstead(const timespec* pause, timespec* remaining) __asm__("__wrap_nanosleep");

int yieldInstead(const timespec*, timespec*) {
    return sched_yield();
}

} // namespace fuzz
