// The bounding-box scan of one block, apart from the pool that runs it.
#pragma once

#include "src/splatheader.h"

namespace Tavrin::GaussionSplat {

// A box that always holds the origin.
struct ScanBox {
    Vector3 min;
    Vector3 max;
};

// The stride of the scan whatever the header declares: 62 four-byte floats.
inline constexpr std::uint32_t scanStride = recordSizeWithShcoef;

// Widen box by the positions of the task's records, under the lock of all scans. A file that cannot be opened
// contributes nothing. A length of zero ends the process with status -1.
void scanBlock(const SplatHeader::Task& task, ScanBox& box);

} // namespace Tavrin::GaussionSplat
