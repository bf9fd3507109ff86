#include "convert_command.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

namespace Tavrin::SplatProgram {
namespace {

struct ConvertOptions {
    std::string input;
    std::string output;
};

ExitStatus runConvert(const ConvertOptions&) {
    throw Failure(ExitStatus::ConversionFailed, "convert is not built into this program yet");
}

} // namespace

void addConvertCommand(CLI::App& program, Action& chosen) {
    CLI::App* command = program.add_subcommand("convert", "Convert a splat PLY file to a dataset");
    command->footer(exitStatusTable);
    auto options = std::make_shared<ConvertOptions>();
    command->add_option("IN.ply", options->input, "the splat PLY file")->required();
    command->add_option("OUT", options->output, "the dataset's folder")->required();
    command->callback([options, &chosen] { chosen = [options] { return runConvert(*options); }; });
}

} // namespace Tavrin::SplatProgram
