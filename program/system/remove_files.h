// Removing large files without being bound to wait until the system has freed them.
#pragma once

#include <filesystem>
#include <functional>
#include <vector>

namespace Tavrin::SplatProgram {

// Removes the files; those that are not there are no matter. To free a gigabyte takes the system some tenths
// of a second. Where it can, a process of its own bears that and holds nothing else of this one. This call
// returns when the room is free, or when `waits`, which is asked every few milliseconds, says no.
void removeFiles(const std::vector<std::filesystem::path>& files, const std::function<bool()>& waits);

} // namespace Tavrin::SplatProgram
