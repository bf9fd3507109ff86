#include "program/commands/command.h"

#include "program/system/platform.h"

#include <fmt/format.h>

namespace Tavrin::SplatProgram {

std::string helpEnd(std::initializer_list<const char*> examples) {
    std::string text = examples.size() == 1 ? "Example:\n" : "Examples:\n";
    for (const char* example : examples) {
        text += fmt::format("  {}\n", example);
    }
    return text + "\n" + exitStatusTable;
}

void requireWord(const std::string& word, const char* name, const char* what) {
    if (word.empty()) {
        throw Failure(ExitStatus::usage, fmt::format("{} is an empty word: name {}", name, what));
    }
}

void requireFolder(const std::string& path) {
    std::error_code ignored;
    if (!std::filesystem::is_directory(pathFromText(path), ignored)) {
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: no such folder: give the folder of a dataset", path));
    }
}

} // namespace Tavrin::SplatProgram
