// Ctrl-C and its like: noted, and asked for where work can stop.
#pragma once

namespace Tavrin::SplatProgram {

// From now on Ctrl-C and a request to end (SIGINT, SIGTERM, SIGHUP) are noted instead of ending the process,
// except those that the caller of the program chose to ignore.
void catchInterrupts();

bool interrupted();

// Throws a Failure (Interrupted) when an interrupt has been noted.
void throwIfInterrupted();

} // namespace Tavrin::SplatProgram
