// The options that say how inputs are read: the same for every command that reads scenes.
#pragma once

#include "source/merge.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace Tavrin::SplatProgram {

// As words of the command line; empty where they are not given. addInputOptions has them checked.
struct InputOptions {
    std::string epsg;
    std::string offset;
    std::string source;
    std::string dataType;
    std::string crop;
    std::string minOpacity;
    std::string maxScale;
    std::string scale;
    std::string opacity;
    std::string axes;
    bool strict = false;
};

// Positional words: one scene or several, and the output after them, which `last` names. The words must
// outlive the command.
void addInputWords(CLI::App& command, std::vector<std::string>& words, const std::string& last,
                   const std::string& text);

// The options must outlive the command. `takesStrict`: --strict among them, which is about invalid splats.
void addInputOptions(CLI::App& command, InputOptions& options, bool takesStrict = true);

// Those that are given, by the names of their options.
std::vector<std::pair<std::string, std::string>> givenWords(const InputOptions& options);

// What the words mean. Files that have to be unpacked are unpacked in `scratchFolder`.
SplatSource::SceneOptions sceneOptions(const InputOptions& options, unsigned threads,
                                       const std::filesystem::path& scratchFolder);

} // namespace Tavrin::SplatProgram
