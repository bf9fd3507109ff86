// Removes large files without waiting for the system to free their blocks.
#pragma once

#include <filesystem>
#include <vector>

namespace Tavrin::SplatProgram {

// Removes the files; missing ones are ignored. The system needs some tenths of a second to free a gigabyte.
// On POSIX a child process keeps the files open and waits for that; it holds no other resource of this
// process.
void removeLargeFiles(const std::vector<std::filesystem::path>& files);

} // namespace Tavrin::SplatProgram
