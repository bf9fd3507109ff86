#pragma once

#include "program/convert/preflight.h"
#include "program/terminal/progress.h"

#include <filesystem>
#include <string>

namespace Tavrin::SplatProgram {

// The first command-line word that makes this program the process that runs the converter; two follow: input
// and output folder. Not for people.
inline constexpr const char* converterWord = "--run-converter";

// What that process does: calls the converter once and ends. Its exit status is one of its own (see
// conversion.cpp) or the converter's, and one line on standard error tells of an exception.
int runConverter(const std::string& input, const std::string& folder);

// Runs the converter in a process of its own and shows how far it is; `plan` may be null. Throws a Failure:
// Interrupted, InputRefused when the converter itself refuses the input, else ConversionFailed with what it
// said.
void convertInChild(const std::string& input, const std::filesystem::path& folder, const Plan* plan,
                    Progress& progress);

} // namespace Tavrin::SplatProgram
