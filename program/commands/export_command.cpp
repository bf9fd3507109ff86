#include "program/commands/export_command.h"

#include "program/scene/scene_writer.h"
#include "program/system/interrupt.h"
#include "program/system/partial_file.h"
#include "program/system/platform.h"
#include "program/terminal/console.h"
#include "program/terminal/figures.h"
#include "program/terminal/progress.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <charconv>
#include <memory>
#include <set>
#include <string>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

struct ExportOptions {
    std::string dataset;
    std::string scene;
    std::vector<std::string> cells;
    bool force = false;
    bool quiet = false;
};

std::uint32_t parseKey(const std::string& text) {
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    const char* begin = text.data() + (hex ? 2 : 0);
    const char* end = text.data() + text.size();
    std::uint32_t key = 0;
    const auto [stop, status] = std::from_chars(begin, end, key, hex ? 16 : 10);
    if (status != std::errc() || stop != end || begin == end) {
        throw Failure(
            ExitStatus::usage,
            fmt::format("--cell {}: not a cell key: give a number as info --cells prints it", text));
    }
    return key;
}

std::vector<std::size_t> chooseCells(const SplatReader::Dataset& dataset, const ExportOptions& options) {
    std::set<std::uint32_t> wanted;
    for (const std::string& text : options.cells) {
        wanted.insert(parseKey(text));
    }
    std::vector<std::size_t> cells;
    std::set<std::uint32_t> missing = wanted;
    for (std::size_t cell = 0; cell < dataset.cellCount(); ++cell) {
        if (wanted.empty() || wanted.contains(dataset.cellKey(cell))) {
            cells.push_back(cell);
            missing.erase(dataset.cellKey(cell));
        }
    }
    if (!missing.empty()) {
        throw Failure(ExitStatus::inputRefused,
                      fmt::format("{}: no cell has the key {}: plyconvert info --cells lists the keys",
                                  options.dataset, *missing.begin()));
    }
    return cells;
}

ExitStatus runExport(const ExportOptions& options) {
    requireWord(options.dataset, "OUT", "a folder");
    requireWord(options.scene, "scene.ply", "a file");
    catchInterrupts("what was written is removed");
    Progress progress(!options.quiet && standardErrorIsTerminal());
    for (const std::string& text : options.cells) {
        parseKey(text);
    }
    try {
        const SplatReader::Dataset dataset = openSound(options.dataset);
        checkOutputFile(options.scene, options.force, {options.dataset}, "scene");
        const std::vector<std::size_t> cells = chooseCells(dataset, options);
        std::uint64_t splats = 0;
        for (const std::size_t cell : cells) {
            splats += dataset.range(cell, 0).count;
        }
        const SceneHeader header = sceneHeader(dataset.meta(), splats);
        PartialFile partial(pathFromText(options.scene));
        writeScene(dataset, cells, header.text, partial.path(),
                   [&progress](double share) { progress.update("exporting", share); });
        const std::uint64_t bytes = fs::file_size(partial.path());
        partial.publish();
        progress.clear();
        for (const std::string& remark : header.remarks) {
            reportWarning(fmt::format("{}: {}", options.dataset, remark));
        }
        if (dataset.levelCount() > 1) {
            reportWarning(fmt::format("{}: of its {} levels, level 0 was exported", options.dataset,
                                      dataset.levelCount()));
        }
        if (!options.quiet) {
            fmt::print("{}: {} of {}, {}, in {}\n", options.scene, countText(splats, "splat", "splats"),
                       countText(cells.size(), "cell", "cells"), bytesText(bytes),
                       durationText(progress.seconds()));
        }
    } catch (const SplatReader::DatasetError& error) { // it changed since it was found sound
        throw Failure(ExitStatus::inputRefused, fmt::format("{}: {}", options.dataset, error.what()));
    }
    return ExitStatus::done;
}

} // namespace

void addExportCommand(CLI::App& program, Action& chosen) {
    CLI::App* command = program.add_subcommand("export", "Turn a dataset back into a binary splat PLY file");
    command->footer(helpEnd({"plyconvert export town town.ply"}));
    auto options = std::make_shared<ExportOptions>();
    command->add_option("OUT", options->dataset, "the dataset's folder")->required();
    command->add_option("scene.ply", options->scene, "the file to write")->required();
    command->add_option("--cell", options->cells, "export only this cell (see info --cells); may be repeated")
        ->type_name("KEY")
        ->expected(1)
        ->take_all();
    addFileFlags(*command, options->force, options->quiet);
    command->callback([options, &chosen] { chosen = [options] { return runExport(*options); }; });
}

} // namespace Tavrin::SplatProgram
