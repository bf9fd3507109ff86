// The options for reading inputs, shared by every subcommand that reads scenes.
#pragma once

#include "source/merge.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace Tavrin::SplatProgram {

// The options as text of the command line, empty where not given. The parser checks them (addInputOptions).
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

// Adds the positional arguments: one scene or several, then the output. `last` is the output's name in the
// help. `words` must outlive the command.
void addInputWords(CLI::App& command, std::vector<std::string>& words, const std::string& last,
                   const std::string& text);

// Adds the options. `options` must outlive the command. `takesStrict`: also --strict, which refuses invalid
// splats.
void addInputOptions(CLI::App& command, InputOptions& options, bool takesStrict = true);

// The options that were given: pairs of name and text.
std::vector<std::pair<std::string, std::string>> givenWords(const InputOptions& options);

// The parsed options. Compressed inputs are unpacked into `scratchFolder`.
SplatSource::SceneOptions sceneOptions(const InputOptions& options, unsigned threads,
                                       const std::filesystem::path& scratchFolder);

} // namespace Tavrin::SplatProgram
