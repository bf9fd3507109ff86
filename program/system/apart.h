// Runs work that an interrupted program does not have to wait for.
#pragma once

#include <functional>

namespace Tavrin::SplatProgram {

// Runs `work` on a thread of its own, or on the caller's where the system has no more. Returns true when it
// has ended, and rethrows what it threw.
//
// `isUnwanted` is asked every few milliseconds. Once it says yes, the work has a tenth of a second to end.
// After that this returns false and leaves the work behind: a system call may hold it for longer, such as a
// write that waits for the disk. `work` has to own what it needs, because it goes on until the process ends.
bool runApart(std::function<void()> work, const std::function<bool()>& isUnwanted);

// True after work was left behind. The process must then end without destroying static objects.
bool isWorkLeftBehind();

} // namespace Tavrin::SplatProgram
