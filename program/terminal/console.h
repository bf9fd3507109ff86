// Messages to the user on standard error.
#pragma once

#include <string>
#include <string_view>

namespace Tavrin::SplatProgram {

// Writes "plyconvert: error: LINE" to standard error. Control characters, which a path or a header can
// contain, are shown as \xNN. So a message is always one line and never moves the cursor.
void reportError(std::string_view line);

// The same, with "plyconvert: warning: " in front.
void reportWarning(std::string_view line);

// The text with every control character shown as \xNN.
std::string printable(std::string_view text);

// Flushes standard output; false when anything written to it was lost.
bool finishStandardOutput();

// Flushes standard output. Throws a Failure (NotTold) when anything written to it was lost.
void requireStandardOutput();

} // namespace Tavrin::SplatProgram
