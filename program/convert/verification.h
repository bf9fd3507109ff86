// The check of a dataset that was just written.
#pragma once

#include "program/terminal/progress.h"
#include "reader/verify.h"
#include "source/drop.h"
#include "stream/conversion.h"

#include <filesystem>
#include <string>

namespace Tavrin::SplatProgram {

// Checks all relations of the dataset in `folder`, and that every splat of the input is accounted for: read =
// written + dropped + left out, with the numbers of `measured`. Reads with `threads` threads. Throws a
// Failure: VerificationFailed; SplatsLeftOut unless `allowLoss`; Interrupted.
SplatReader::VerifyReport verifyConversion(const std::filesystem::path& folder, const std::string& input,
                                           const SplatStream::Measured& measured,
                                           const SplatSource::Ledger& ledger, bool allowLoss,
                                           unsigned threads, Progress& progress);

} // namespace Tavrin::SplatProgram
