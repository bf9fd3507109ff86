// Removes large files without having to wait until the system has freed their disk space.
#pragma once

#include <filesystem>
#include <functional>
#include <system_error>
#include <vector>

namespace Tavrin::SplatProgram {

// Removes the files; a missing one is no error. The system needs some tenths of a second to free a gigabyte.
// On Linux another process, which shares no other resource with this one, does that. This function calls
// `waits` every few milliseconds and returns when the disk space is free or `waits` returns false.
//
// Then removes `folder` if it is empty, unless the path is empty, and returns the error of that. It comes
// before the system frees the files: the removal of a folder waits for files in it that are being freed.
std::error_code removeFiles(const std::vector<std::filesystem::path>& files,
                            const std::function<bool()>& waits, const std::filesystem::path& folder = {});

} // namespace Tavrin::SplatProgram
