// The full level of verifyDataset, record by record; for the reader's own files.
#pragma once

#include "reader/verify.h"

#include <filesystem>

namespace Tavrin::SplatReader {

// Reads all records of data.bin and shcoef.bin. The sizes of the files must agree. `useIndex` says that the
// index is consistent, so that each record's cell is known. Fills report.use and adds findings.
void verifyRecords(const std::filesystem::path& folder, const VerifyOptions& options, bool useIndex,
                   VerifyReport& report);

} // namespace Tavrin::SplatReader
