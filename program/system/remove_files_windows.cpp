#include "program/system/remove_files.h"

#include <system_error>

namespace Tavrin::SplatProgram {

std::error_code removeFiles(const std::vector<std::filesystem::path>& files, const std::function<bool()>&,
                            const std::filesystem::path& folder) {
    for (const std::filesystem::path& file : files) {
        std::error_code ignored;
        std::filesystem::remove(file, ignored);
    }
    std::error_code error;
    if (!folder.empty()) {
        std::filesystem::remove(folder, error);
        // The error of a folder that holds something may be "access denied".
        std::error_code unknown;
        if (error && !std::filesystem::is_empty(folder, unknown) && !unknown) {
            error = std::make_error_code(std::errc::directory_not_empty);
        }
    }
    return error;
}

} // namespace Tavrin::SplatProgram
