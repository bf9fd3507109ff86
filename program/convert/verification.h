#pragma once

#include "program/convert/preflight.h"
#include "program/terminal/progress.h"
#include "reader/verify.h"

#include <filesystem>
#include <string>

namespace Tavrin::SplatProgram {

// Checks every relation of a dataset that was just written, and that it accounts for every splat of the
// input: read = written + left out, as planned. `plan` may be null. Throws a Failure: VerificationFailed; or
// SplatsLeftOut unless `allowLoss`; or Interrupted.
SplatReader::VerifyReport verifyConversion(const std::filesystem::path& folder, const std::string& input,
                                           const Plan* plan, bool allowLoss, Progress& progress);

} // namespace Tavrin::SplatProgram
