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
    // A closed terminal or pipe must not end the process between two steps.
    std::signal(SIGPIPE, SIG_IGN);
    // A write beyond the limit of a file's size fails instead.
    std::signal(SIGXFSZ, SIG_IGN);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction previous = {};
        if (::sigaction(number, nullptr, &previous) == 0 && previous.sa_handler == SIG_IGN) {
            continue; // nohup, or a job in the background of a script
        }
        // Without SA_RESTART: a call that waits returns at once.
        struct sigaction action = {};
        action.sa_handler = note;
        ::sigaction(number, &action, nullptr);
    }
}

bool interrupted() {
    return noted != 0;
}

} // namespace Tavrin::SplatProgram
