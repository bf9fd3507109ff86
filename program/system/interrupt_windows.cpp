#include "program/system/interrupt.h"

#include <atomic>

#include <windows.h>

namespace Tavrin::SplatProgram {
namespace {

std::atomic<bool> noted = false;

// Runs in a thread of its own.
BOOL WINAPI note(DWORD event) {
    noted = true;
    if (event == CTRL_CLOSE_EVENT || event == CTRL_LOGOFF_EVENT || event == CTRL_SHUTDOWN_EVENT) {
        // The process ends as soon as this returns. Until the system's patience ends, the main thread has
        // time to clean up; its end is then the process's.
        Sleep(INFINITE);
    }
    return TRUE;
}

} // namespace

// A caller that started the program with Ctrl-C ignored has it ignored further on: the handler is then not
// called for it.
void noteInterrupts() {
    SetConsoleCtrlHandler(note, TRUE);
}

bool interrupted() {
    return noted;
}

} // namespace Tavrin::SplatProgram
