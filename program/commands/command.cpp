#include "program/commands/command.h"

#include "program/system/partial_file.h"
#include "program/system/platform.h"
#include "reader/verify.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

namespace Tavrin::SplatProgram {

std::string helpEnd(std::initializer_list<const char*> examples) {
    std::string text = examples.size() == 1 ? "Example:\n" : "Examples:\n";
    for (const char* example : examples) {
        text += fmt::format("  {}\n", example);
    }
    return text + "\n" + exitStatusTable;
}

void addQuietFlag(CLI::App& command, bool& quiet) {
    command.add_flag("--quiet", quiet, "print nothing but errors");
}

void addFileFlags(CLI::App& command, bool& force, bool& quiet) {
    command.add_flag("--force", force, "replace an existing file");
    addQuietFlag(command, quiet);
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

SplatReader::Dataset openSound(const std::string& path) {
    requireFolder(path);
    const SplatReader::VerifyReport report = SplatReader::verifyDataset(pathFromText(path));
    if (!report.sound()) {
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: not a sound dataset: {} (plyconvert verify shows all of it)", path,
                                  report.findings.errors().front().text()));
    }
    return SplatReader::Dataset::open(pathFromText(path));
}

void checkOutputFile(const std::string& name, bool force, const std::vector<std::string>& datasets,
                     const char* what) {
    checkTargetFile(name, force);
    const std::filesystem::path target = pathFromText(name);
    const auto folder = identityOf(target.has_parent_path() ? target.parent_path() : ".");
    for (const std::string& dataset : datasets) {
        if (folder == identityOf(pathFromText(dataset))) {
            throw Failure(
                ExitStatus::outputRefused,
                fmt::format("{}: lies in the folder of a dataset, which may hold nothing else: write "
                            "the {} elsewhere",
                            name, what));
        }
    }
}

} // namespace Tavrin::SplatProgram
