// The check of a dataset that was just written.
#pragma once

#include "program/convert/conversion.h"
#include "program/terminal/progress.h"
#include "reader/verify.h"
#include "source/drop.h"

#include <filesystem>
#include <string>

namespace Tavrin::SplatProgram {

// Checks every relation of a dataset that was just written, and that it accounts for every splat of the
// input: read = written + dropped + left out, as measured. Reads on so many threads. Throws a Failure:
// VerificationFailed; or SplatsLeftOut unless `allowLoss`; or Interrupted.
SplatReader::VerifyReport verifyConversion(const std::filesystem::path& folder, const std::string& input,
                                           const SplatStream::Measured& measured,
                                           const SplatSource::Ledger& ledger, bool allowLoss,
                                           unsigned threads, Progress& progress);

} // namespace Tavrin::SplatProgram
