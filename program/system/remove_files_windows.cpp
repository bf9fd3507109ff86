#include "program/system/remove_files.h"

#include <system_error>

namespace Tavrin::SplatProgram {

void removeFiles(const std::vector<std::filesystem::path>& files, const std::function<bool()>&) {
    for (const std::filesystem::path& file : files) {
        std::error_code ignored;
        std::filesystem::remove(file, ignored);
    }
}

} // namespace Tavrin::SplatProgram
