// Inside the reader: the full level of verifyDataset, record by record.
#pragma once

#include "reader/verify.h"

#include <filesystem>

namespace Tavrin::SplatReader {

// Reads all records of data.bin and shcoef.bin. `useIndex` says that the index holds together, so that each
// record's cell is known. The sizes of the files must agree. Fills report.use and adds findings.
void verifyRecords(const std::filesystem::path& folder, const VerifyOptions& options, bool useIndex,
                   VerifyReport& report);

} // namespace Tavrin::SplatReader
