// Interrupts (Ctrl-C and the like). They are noted, and the work asks for them where it can stop.
#pragma once

namespace Tavrin::SplatProgram {

// From now on Ctrl-C and requests to end (SIGINT, SIGTERM, SIGHUP) are noted instead of ending the process.
// Signals that the parent process has set to be ignored stay ignored. `outcome` says in a few words what an
// interrupt leaves behind. The pointer is kept, so it must stay valid.
void catchInterrupts(const char* outcome);

// The part of catchInterrupts that differs between systems.
void noteInterrupts();

bool interrupted();

// Throws a Failure (Interrupted) when an interrupt has been noted.
void throwIfInterrupted();

} // namespace Tavrin::SplatProgram
