// Messages to people on standard error.
#pragma once

#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {

// Writes "plyconvert: error: LINE" to standard error. Control characters in it (a path or a header can hold
// them) are shown as \xNN, so that a message is always one line and never moves the cursor.
void reportError(std::string_view line);

// The same with "plyconvert: warning: ".
void reportWarning(std::string_view line);

// The text with every control character shown as \xNN.
std::string printable(std::string_view text);

// Flushes standard output; false when anything written to it was lost.
bool finishStandardOutput();

// The same. Throws a Failure (NotTold) when anything was lost.
void requireStandardOutput();

} // namespace Tavrin::SplatProgram
