#include "program/commands/input_options.h"

#include "source/canonical_header.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string_view>

namespace Tavrin::SplatProgram {
namespace {

// Decimal numbers separated by commas; nothing unless there are exactly `count`, all finite.
template <std::size_t count>
std::optional<std::array<double, count>> numbersOf(std::string_view word) {
    std::array<double, count> numbers{};
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t comma = word.find(',');
        const bool isLast = i + 1 == count;
        if ((comma == std::string_view::npos) != isLast) {
            return std::nullopt;
        }
        std::string_view text = word.substr(0, comma);
        text.remove_prefix(text.starts_with('+') ? 1 : 0);
        const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), numbers[i]);
        if (error != std::errc() || stop != text.data() + text.size() || !std::isfinite(numbers[i])) {
            return std::nullopt;
        }
        word.remove_prefix(isLast ? word.size() : comma + 1);
    }
    return numbers;
}

std::optional<std::int32_t> codeOf(std::string_view word) {
    std::int32_t code = 0;
    const auto [stop, error] = std::from_chars(word.data(), word.data() + word.size(), code);
    const bool isCode = error == std::errc() && stop == word.data() + word.size() && code > 0;
    return isCode ? std::optional(code) : std::nullopt;
}

// Checks of option values: the message for a bad value, empty for a good one.
std::string checkCode(const std::string& word) {
    return codeOf(word) ? "" : fmt::format("{} is not an EPSG code: write a whole number like 25832", word);
}

std::string checkOffset(const std::string& word) {
    const auto numbers = numbersOf<3>(word);
    bool isHeld = numbers.has_value();
    for (std::size_t i = 0; isHeld && i < 3; ++i) {
        isHeld = std::isfinite(static_cast<float>((*numbers)[i]));
    }
    return isHeld ? "" : fmt::format("{} is not an offset: write X,Y,Z in decimal numbers", word);
}

std::string checkCrop(const std::string& word) {
    const auto box = numbersOf<6>(word);
    for (std::size_t axis = 0; box && axis < 3; ++axis) {
        if ((*box)[axis] > (*box)[axis + 3]) {
            return fmt::format("{} has a minimum above its maximum", word);
        }
    }
    return box ? "" : fmt::format("{} is not a box: write MINX,MINY,MINZ,MAXX,MAXY,MAXZ", word);
}

std::string checkOpacityBound(const std::string& word) {
    const auto number = numbersOf<1>(word);
    return number && (*number)[0] >= 0.0 && (*number)[0] <= 1.0
               ? ""
               : fmt::format("{} is not an opacity: write a number from 0 to 1", word);
}

std::string checkScaleBound(const std::string& word) {
    const auto number = numbersOf<1>(word);
    return number && (*number)[0] > 0.0 ? "" : fmt::format("{} is not a scale: write a number above 0", word);
}

std::string checkWord(const std::string& word) {
    return SplatSource::isCommentWord(word)
               ? ""
               : fmt::format("\"{}\" does not fit: write one word without blanks, quotes and backslashes",
                             word);
}

// Without a description, because the help text already lists the words.
CLI::Validator oneOf(const std::vector<std::string>& words) {
    return CLI::IsMember(words).description("");
}

template <typename Value>
std::optional<Value> ifGiven(const std::string& word, Value value) {
    return word.empty() ? std::nullopt : std::optional<Value>(std::move(value));
}

} // namespace

void addInputWords(CLI::App& command, std::vector<std::string>& words, const std::string& last,
                   const std::string& text) {
    command.add_option("IN", words, text)->required()->option_text("IN... " + last)->expected(1, 1 << 20);
    command.parse_complete_callback([&words, last] {
        if (words.size() == 1) {
            throw CLI::RequiredError(last);
        }
    });
}

void addInputOptions(CLI::App& command, InputOptions& options, bool takesStrict) {
    const auto add = [&](const char* name, std::string& word, const char* type, const char* text) {
        return command.add_option(name, word, text)->type_name(type);
    };
    add("--crop", options.crop, "BOX", "drop splats outside MINX,MINY,MINZ,MAXX,MAXY,MAXZ")->check(checkCrop);
    add("--min-opacity", options.minOpacity, "A", "drop splats with an opacity below A")
        ->check(checkOpacityBound);
    add("--max-scale", options.maxScale, "S", "drop splats with an axis above S")->check(checkScaleBound);
    if (takesStrict) {
        command.add_flag("--strict", options.strict, "refuse files with invalid splats (default: drop them)");
    }
    add("--scale", options.scale, "KIND", "scales are \"linear\" or \"log\"")
        ->check(oneOf({"linear", "log"}));
    add("--opacity", options.opacity, "KIND", "opacities are \"linear\" or \"logit\"")
        ->check(oneOf({"linear", "logit"}));
    add("--axes", options.axes, "AXES", "an SPZ file has the axes \"rub\" or \"rdf\"")
        ->check(oneOf({"rub", "rdf"}));
    add("--epsg", options.epsg, "CODE", "EPSG code, in place of the header's")->check(checkCode);
    add("--offset", options.offset, "X,Y,Z", "offset of the positions, in place of the header's")
        ->check(checkOffset);
    add("--source", options.source, "WORD", "source of the data, in place of the header's")->check(checkWord);
    add("--data-type", options.dataType, "WORD", "kind of the data, in place of the header's")
        ->check(checkWord);
}

std::vector<std::pair<std::string, std::string>> givenWords(const InputOptions& options) {
    std::vector<std::pair<std::string, std::string>> given = {
        {"crop", options.crop},
        {"minOpacity", options.minOpacity},
        {"maxScale", options.maxScale},
        {"scale", options.scale},
        {"opacity", options.opacity},
        {"axes", options.axes},
        {"epsg", options.epsg},
        {"offset", options.offset},
        {"source", options.source},
        {"dataType", options.dataType},
        {"strict", options.strict ? "true" : ""},
    };
    std::erase_if(given, [](const auto& option) { return option.second.empty(); });
    return given;
}

SplatSource::SceneOptions sceneOptions(const InputOptions& options, unsigned threads,
                                       const std::filesystem::path& scratchFolder) {
    SplatSource::SceneOptions scene;
    scene.open.threads = threads;
    scene.open.scratchFolder = scratchFolder;
    scene.open.axes = options.axes == "rub"   ? SplatSource::InputAxes::rightUpBack
                      : options.axes == "rdf" ? SplatSource::InputAxes::rightDownFront
                                              : SplatSource::InputAxes::stated;
    if (const auto box = numbersOf<6>(options.crop)) {
        scene.rules.crop =
            SplatSource::Box{{(*box)[0], (*box)[1], (*box)[2]}, {(*box)[3], (*box)[4], (*box)[5]}};
    }
    if (const auto least = numbersOf<1>(options.minOpacity)) {
        scene.rules.minOpacity = (*least)[0];
    }
    if (const auto most = numbersOf<1>(options.maxScale)) {
        scene.rules.maxScale = (*most)[0];
    }
    scene.scales = options.scale == "linear" ? SplatSource::ScaleValues::linear
                   : options.scale == "log"  ? SplatSource::ScaleValues::logarithms
                                             : SplatSource::ScaleValues::told;
    scene.opacities = options.opacity == "linear"  ? SplatSource::OpacityValues::linear
                      : options.opacity == "logit" ? SplatSource::OpacityValues::logits
                                                   : SplatSource::OpacityValues::told;
    scene.isStrict = options.strict;
    scene.epsg = codeOf(options.epsg);
    scene.offset = numbersOf<3>(options.offset);
    scene.source = ifGiven(options.source, options.source);
    scene.dataType = ifGiven(options.dataType, options.dataType);
    return scene;
}

} // namespace Tavrin::SplatProgram
