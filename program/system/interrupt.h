// Ctrl-C and its like: noted, and asked for where work can stop.
#pragma once

namespace Tavrin::SplatProgram {

// From now on Ctrl-C and a request to end (SIGINT, SIGTERM, SIGHUP) are noted instead of ending the process,
// except those that the caller of the program chose to ignore. `outcome` says in a few words what an
// interrupt leaves behind; it must outlive the process's work.
void catchInterrupts(const char* outcome);

// The part of it that differs between systems.
void noteInterrupts();

bool interrupted();

// Throws a Failure (Interrupted) when an interrupt has been noted.
void throwIfInterrupted();

} // namespace Tavrin::SplatProgram
