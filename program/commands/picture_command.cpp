#include "program/commands/picture_command.h"

#include "picture/geotiff_file.h"
#include "picture/orthophoto.h"
#include "picture/png_file.h"
#include "program/system/interrupt.h"
#include "program/system/partial_file.h"
#include "program/system/platform.h"
#include "program/system/processors.h"
#include "program/terminal/console.h"
#include "program/terminal/figures.h"
#include "program/terminal/progress.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

namespace fs = std::filesystem;

constexpr int usualSize = 2048; // pixels of the longer side without --gsd and --size

struct PictureOptions {
    std::vector<std::string> words; // the datasets, then the file to write
    std::string gsd;
    int size = usualSize;
    std::string box;
    std::string background;
    unsigned threads = 0;
    bool force = false;
    bool quiet = false;

    std::vector<std::string> datasets() const { return {words.begin(), words.end() - 1}; }
    const std::string& file() const { return words.back(); }
};

std::optional<double> numberOf(std::string_view text) {
    double number = 0.0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = error == std::errc() && stop == text.data() + text.size() && std::isfinite(number);
    return isNumber ? std::optional(number) : std::nullopt;
}

// MINX,MINY,MAXX,MAXY, each maximum above its minimum.
std::optional<SplatPicture::Box> boxOf(std::string_view word) {
    std::array<double, 4> edges{};
    for (std::size_t i = 0; i < edges.size(); ++i) {
        const std::size_t comma = word.find(',');
        const std::optional<double> edge = numberOf(word.substr(0, comma));
        if (!edge || (comma == std::string_view::npos) != (i + 1 == edges.size())) {
            return std::nullopt;
        }
        edges[i] = *edge;
        word.remove_prefix(comma == std::string_view::npos ? word.size() : comma + 1);
    }
    const bool isBox = edges[0] < edges[2] && edges[1] < edges[3];
    return isBox ? std::optional(SplatPicture::Box{edges[0], edges[1], edges[2], edges[3]}) : std::nullopt;
}

// RRGGBB in hexadecimal digits, with or without a leading #; black and white.
std::optional<SplatPicture::Colour> colourOf(std::string_view word) {
    word = word == "black" ? "000000" : word == "white" ? "ffffff" : word;
    word.remove_prefix(word.starts_with('#') ? 1 : 0);
    unsigned value = 0;
    const auto [stop, error] = std::from_chars(word.data(), word.data() + word.size(), value, 16);
    if (error != std::errc() || stop != word.data() + word.size() || word.size() != 6) {
        return std::nullopt;
    }
    constexpr float most = 255.0f;
    return SplatPicture::Colour{static_cast<float>(value >> 16) / most,
                                static_cast<float>((value >> 8) & 0xFFu) / most,
                                static_cast<float>(value & 0xFFu) / most};
}

std::string checkPixel(const std::string& word) {
    const std::optional<double> pixel = numberOf(word);
    return pixel && *pixel > 0.0 ? ""
                                 : fmt::format("{} is not the size of a pixel: write a number above 0", word);
}

std::string checkBox(const std::string& word) {
    return boxOf(word)
               ? ""
               : fmt::format("{} is not a box: write MINX,MINY,MAXX,MAXY, each maximum above its minimum",
                             word);
}

std::string checkColour(const std::string& word) {
    return colourOf(word) ? "" : fmt::format("{} is not a colour: write RRGGBB, black or white", word);
}

enum class FileKind { geoTiff, png };

FileKind kindOf(const std::string& file) {
    std::string end = textFromPath(pathFromText(file).extension());
    for (char& letter : end) {
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
    if (end != ".tif" && end != ".tiff" && end != ".png") {
        throw Failure(ExitStatus::usage,
                      fmt::format("{}: its name does not say what to write: end it in .tif or .png", file));
    }
    return end == ".png" ? FileKind::png : FileKind::geoTiff;
}

// The world file of a PNG file.
fs::path worldFileOf(const std::string& file) {
    return pathFromText(file).replace_extension(".pgw");
}

void checkTargets(const PictureOptions& options, FileKind kind) {
    checkOutputFile(options.file(), options.force, options.datasets(), "picture");
    if (kind == FileKind::png) {
        checkTargetFile(textFromPath(worldFileOf(options.file())), options.force);
    }
}

std::vector<SplatReader::Dataset> openDatasets(const std::vector<std::string>& names) {
    std::vector<SplatReader::Dataset> datasets;
    for (const std::string& name : names) {
        throwIfInterrupted();
        datasets.push_back(openSound(name));
        const std::int32_t code = datasets.back().meta().epsg;
        const std::int32_t first = datasets.front().meta().epsg;
        if (code != first) {
            throw Failure(ExitStatus::inputRefused,
                          fmt::format("{}: EPSG {}, but {} has EPSG {}: make one picture for each code", name,
                                      code, names.front(), first));
        }
    }
    return datasets;
}

SplatPicture::PixelGrid gridOf(const PictureOptions& options, const SplatPicture::Survey& survey) {
    const std::optional<SplatPicture::Box> stated = boxOf(options.box);
    if (!stated && survey.box.isEmpty()) {
        throw Failure(
            ExitStatus::inputRefused,
            fmt::format("{}: there is nothing to draw: every splat is transparent", options.words.front()));
    }
    const SplatPicture::Box box = stated.value_or(survey.box);
    const double margin = stated ? 0.0 : SplatPicture::blurringMargin();
    try {
        if (const std::optional<double> pixel = numberOf(options.gsd)) {
            return SplatPicture::gridOfPixel(box, *pixel, margin);
        }
        return SplatPicture::gridOfSize(box, options.size, margin);
    } catch (const SplatPicture::PictureError& error) {
        throw Failure(ExitStatus::usage, error.what());
    }
}

// Writes the pixel size, the rotation terms (0) and the centre of the upper left pixel, one number a line.
void writeWorldFile(const fs::path& path, const SplatPicture::PixelGrid& grid) {
    std::ofstream file(path, std::ios::binary);
    file << fmt::format("{}\n0.0\n0.0\n{}\n{}\n{}\n", grid.pixel, -grid.pixel, grid.left() + 0.5 * grid.pixel,
                        grid.top() - 0.5 * grid.pixel);
    file.close();
    if (!file) {
        throw SplatPicture::PictureError(
            "the world file cannot be written: check the folder and the free disk");
    }
}

struct Drawn {
    SplatPicture::Survey survey;
    SplatPicture::PixelGrid grid;
    std::uint64_t bytes = 0;
};

Drawn draw(const PictureOptions& options, FileKind kind, const std::vector<SplatReader::Dataset>& datasets,
           Progress& progress) {
    SplatPicture::Crew crew(options.threads > 0 ? options.threads : usableProcessors(), [&](double share) {
        throwIfInterrupted();
        progress.update("drawing", share);
    });
    Drawn drawn;
    drawn.survey = SplatPicture::surveyOf(datasets, crew);
    drawn.grid = gridOf(options, drawn.survey);
    SplatPicture::Orthophoto picture;
    picture.grid = drawn.grid;
    picture.background = options.background.empty() ? std::nullopt : colourOf(options.background);
    PartialFile partial(pathFromText(options.file()));
    std::unique_ptr<SplatPicture::Sink> sink;
    if (kind == FileKind::png) {
        sink = std::make_unique<SplatPicture::PngFile>(partial.path(), drawn.grid.width, drawn.grid.height);
    } else {
        sink = std::make_unique<SplatPicture::GeoTiffFile>(partial.path(), drawn.grid,
                                                           datasets.front().meta().epsg);
    }
    const bool isAnything = SplatPicture::drawOrthophoto(drawn.survey, picture, crew, *sink);
    sink->close();
    drawn.bytes = fs::file_size(partial.path());
    throwIfInterrupted();
    if (kind == FileKind::png) { // first, so that a picture never lies where an earlier one did
        PartialFile world(worldFileOf(options.file()));
        writeWorldFile(world.path(), drawn.grid);
        world.publish();
    }
    partial.publish();
    progress.clear();
    if (!isAnything) {
        reportWarning(fmt::format("{}: nothing lies in the box {}", options.file(), options.box));
    }
    return drawn;
}

void warnOfCode(const PictureOptions& options, FileKind kind, std::int32_t code) {
    if (kind == FileKind::geoTiff && SplatPicture::kindOfCode(code) == SplatPicture::CodeKind::unknown) {
        reportWarning(
            fmt::format("{}: PROJ does not know EPSG {} as a code of map or geographic coordinates: the "
                        "file does not state it",
                        options.file(), code));
    }
}

ExitStatus runPicture(const PictureOptions& options) {
    for (const std::string& word : options.words) {
        requireWord(word, "DATASET or FILE", "a folder or a file");
    }
    const FileKind kind = kindOf(options.file());
    catchInterrupts("what was written is removed");
    Progress progress(!options.quiet && standardErrorIsTerminal());
    try {
        const std::vector<SplatReader::Dataset> datasets = openDatasets(options.datasets());
        checkTargets(options, kind);
        const std::int32_t code = datasets.front().meta().epsg;
        const Drawn drawn = draw(options, kind, datasets, progress);
        warnOfCode(options, kind, code);
        if (!options.quiet) {
            fmt::print("{}: {} x {} pixels of {} units, {} of {}, EPSG {}, {}, in {}\n", options.file(),
                       countText(static_cast<std::uint64_t>(drawn.grid.width)),
                       countText(static_cast<std::uint64_t>(drawn.grid.height)), drawn.grid.pixel,
                       countText(drawn.survey.splats, "splat", "splats"),
                       countText(drawn.survey.cells, "cell", "cells"), code, bytesText(drawn.bytes),
                       durationText(progress.seconds()));
        }
    } catch (const SplatPicture::PictureError& error) {
        throw Failure(ExitStatus::outputRefused, fmt::format("{}: {}", options.file(), error.what()));
    } catch (const SplatReader::DatasetError& error) { // it changed since it was found sound
        throw Failure(ExitStatus::inputRefused, fmt::format("{}: {}", options.words.front(), error.what()));
    }
    return ExitStatus::done;
}

} // namespace

void addPictureCommand(CLI::App& program, Action& chosen) {
    constexpr int mostThreads = 1024;
    CLI::App* command = program.add_subcommand("picture", pictureSummary);
    command->footer(helpEnd({"plyconvert picture town town.tif --gsd 0.1"}));
    auto options = std::make_shared<PictureOptions>();
    command->add_option("DATASET", options->words, "folders of datasets, then FILE: .tif (GeoTIFF) or .png")
        ->required()
        ->expected(2, 1 << 20);
    CLI::Option* const gsd = command->add_option("--gsd", options->gsd, "size of a pixel, in units")
                                 ->type_name("UNITS")
                                 ->check(checkPixel);
    command->add_option("--size", options->size, fmt::format("pixels of the longer side ({})", usualSize))
        ->type_name("PIXELS")
        ->check(CLI::Range(2, SplatPicture::mostPixels).description(""))
        ->excludes(gsd);
    command->add_option("--box", options->box, "draw only MINX,MINY,MAXX,MAXY, in world coordinates")
        ->type_name("BOX")
        ->check(checkBox);
    command->add_option("--background", options->background, "RRGGBB, black or white (default: transparent)")
        ->type_name("COLOUR")
        ->check(checkColour);
    command->add_option("--threads", options->threads, "use N threads")
        ->type_name("N")
        ->check(CLI::Range(1, mostThreads).description(""));
    addFileFlags(*command, options->force, options->quiet);
    command->callback([options, &chosen] { chosen = [options] { return runPicture(*options); }; });
}

} // namespace Tavrin::SplatProgram
