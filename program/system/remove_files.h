// Removing large files without waiting for the system to free them.
#pragma once

#include <filesystem>
#include <vector>

namespace Tavrin::SplatProgram {

// Removes the files; those that are not there are no matter. To free a gigabyte takes the system some tenths
// of a second. Where it can, a process of its own waits for that and holds nothing else of this one.
void removeLargeFiles(const std::vector<std::filesystem::path>& files);

} // namespace Tavrin::SplatProgram
