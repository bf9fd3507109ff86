#include "program/system/platform.h"

#include <system_error>

#include <unistd.h>

namespace Tavrin::SplatProgram {

void runGeoProgram(const std::vector<std::string>& words) {
    std::error_code error;
    const std::filesystem::path own = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return;
    }
    std::vector<std::string> copies = {"plyconvert"};
    copies.insert(copies.end(), words.begin(), words.end());
    std::vector<char*> arguments;
    arguments.reserve(copies.size() + 1);
    for (std::string& word : copies) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const std::filesystem::path folder = own.parent_path();
    for (const std::filesystem::path& place :
         {folder / "plyconvert-geo", folder.parent_path() / "libexec" / "plyconvert" / "plyconvert-geo"}) {
        ::execv(place.c_str(), arguments.data());
    }
}

} // namespace Tavrin::SplatProgram
