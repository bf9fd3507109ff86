#include "program/system/interrupt.h"

#include <csignal>
#include <initializer_list>

namespace Tavrin::SplatProgram {
namespace {

volatile std::sig_atomic_t noted = 0;

void note(int) {
    noted = 1;
}

} // namespace

void noteInterrupts() {
    // A closed terminal or pipe must not end the process in the middle of its work.
    std::signal(SIGPIPE, SIG_IGN);
    // A write beyond the file size limit then fails instead of ending the process.
    std::signal(SIGXFSZ, SIG_IGN);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction previous = {};
        if (::sigaction(number, nullptr, &previous) == 0 && previous.sa_handler == SIG_IGN) {
            continue; // ignored by nohup, or because a script started this in the background
        }
        // Without SA_RESTART, so that a waiting system call returns at once.
        struct sigaction action = {};
        action.sa_handler = note;
        ::sigaction(number, &action, nullptr);
    }
}

bool interrupted() {
    return noted != 0;
}

} // namespace Tavrin::SplatProgram
