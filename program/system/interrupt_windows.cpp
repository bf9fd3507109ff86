#include "program/system/interrupt.h"

#include <atomic>

#include <windows.h>

namespace Tavrin::SplatProgram {
namespace {

std::atomic<bool> noted = false;

// The system calls it in a thread of its own.
BOOL WINAPI note(DWORD event) {
    noted = true;
    if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT) {
        // The process ends as soon as this returns. Waiting gives the main thread time to clean up and end
        // the process itself, until the system's time limit.
        Sleep(INFINITE);
    }
    return TRUE;
}

} // namespace

// If the parent process has set Ctrl-C to be ignored, it stays ignored: the system does not call the handler
// then.
void noteInterrupts() {
    SetConsoleCtrlHandler(note, TRUE);
}

bool interrupted() {
    return noted;
}

} // namespace Tavrin::SplatProgram
