// Flushes folders to the disk in a way that an interrupted program does not have to wait for.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <vector>

namespace Tavrin::SplatProgram {

// What is left to do once the folders are on the disk.
struct AfterFlush {
    std::vector<std::filesystem::path> removals; // files and empty folders, in this order
    std::intptr_t lock = -1;                     // an open file that is locked until then; -1 for none
};

// Returns true when the entries of the folders are on the disk, as far as the file system flushes folders.
//
// `isUnwanted` is asked every few milliseconds. Once it says yes, the flush has a tenth of a second to end.
// After that this returns false. Where the system can, another process makes the flush: no signal ends a
// flush of the disk, and a thread that waits for one holds up the end of its process. After a return of false
// that process goes on, and it alone does what `after` lists. Where there is no such process, this waits.
bool flushFolders(const std::vector<std::filesystem::path>& folders, const AfterFlush& after,
                  const std::function<bool()>& isUnwanted);

} // namespace Tavrin::SplatProgram
