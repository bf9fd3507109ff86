// TARGET PATH...: runs the target on the named files and on the files of the named folders, ordered by name.

#include "fuzz/target.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argumentCount, char*** arguments);

namespace {

std::vector<std::filesystem::path> filesOf(const std::filesystem::path& place) {
    std::vector<std::filesystem::path> files;
    if (!std::filesystem::is_directory(place)) {
        return {place};
    }
    for (const auto& entry : std::filesystem::directory_iterator(place)) {
        if (entry.is_regular_file()) {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

int replay(const std::vector<std::string>& places) {
    std::size_t count = 0;
    for (const std::string& place : places) {
        for (const std::filesystem::path& file : filesOf(place)) {
            const std::string input = fuzz::readFile(file);
            std::fprintf(stderr, "%s\n", file.c_str());
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
            ++count;
        }
    }
    std::fprintf(stderr, "%zu inputs, no finding\n", count);
    return count > 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    try {
        LLVMFuzzerInitialize(&argc, &argv);
        return replay({argv + 1, argv + argc});
    } catch (const std::exception& error) {
        std::fprintf(stderr, "Finding: an exception left the target: %s\n", error.what());
        return 1;
    }
}
