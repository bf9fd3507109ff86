#include "program/commands/view_command.h"

#include "program/commands/viewed_datasets.h"
#include "program/serve/content.h"
#include "program/serve/page.h"
#include "program/serve/server.h"
#include "program/system/interrupt.h"
#include "program/system/open_files.h"
#include "program/system/partial_file.h"
#include "program/system/platform.h"
#include "program/terminal/console.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Tavrin::SplatProgram {
namespace {

struct ViewOptions {
    std::vector<std::string> words; // folders and catalogues
    std::optional<std::int32_t> epsg;
    std::uint16_t port = 0;
    bool noOpen = false;
    std::string page; // the file of --write-html; empty without it
    bool force = false;
};

ExitStatus writePage(const ViewOptions& options, const std::vector<ServedDataset>& datasets) {
    std::vector<std::string> folders;
    folders.reserve(datasets.size());
    for (const ServedDataset& dataset : datasets) {
        folders.push_back(dataset.folder);
    }
    checkOutputFile(options.page, options.force, folders, "page");
    writeWholeFile(pathFromText(options.page), pageText());
    return ExitStatus::done;
}

ExitStatus serve(const ViewOptions& options, ViewedDatasets viewed) {
    const Content content = Content::ofDatasets(std::move(viewed.datasets));
    Server server(content, options.port);
    const std::string address = fmt::format("http://127.0.0.1:{}/", server.port());
    if (!viewed.remark.empty()) {
        reportWarning(viewed.remark);
    }
    fmt::print("{}\n", address);
    if (!finishStandardOutput()) {
        return ExitStatus::done; // the program's end reports it
    }
    if (!options.noOpen) {
        openInBrowser(address);
    }
    server.run(interrupted);
    return ExitStatus::done;
}

ExitStatus runView(const ViewOptions& options) {
    allowManyFiles();
    ViewedDatasets viewed = datasetsToView(options.words, options.epsg, mostOpenFiles());
    catchInterrupts("nothing was written");
    return options.page.empty() ? serve(options, std::move(viewed)) : writePage(options, viewed.datasets);
}

} // namespace

void addViewCommand(CLI::App& program, Action& chosen) {
    CLI::App* command = program.add_subcommand("view", "Show datasets in the browser");
    command->footer(helpEnd({"plyconvert view town", "plyconvert view city.json"}));
    auto options = std::make_shared<ViewOptions>();
    command->add_option("OUT", options->words, "datasets or catalogues; those of one EPSG code are one map")
        ->required();
    command->add_option("--epsg", options->epsg, "show only the datasets of this code; 0: those without one")
        ->type_name("N")
        ->check(CLI::Range(0, std::numeric_limits<std::int32_t>::max()).description(""));
    constexpr int largestPort = 65535;
    CLI::Option* const port =
        command->add_option("--port", options->port, "serve at this port (default: a free one)")
            ->type_name("N")
            ->check(CLI::Range(0, largestPort).description(""));
    command->add_flag("--no-open", options->noOpen, "print the address, open no browser");
    CLI::Option* const page =
        command->add_option("--write-html", options->page, "write the page to a file, serve nothing")
            ->type_name("FILE");
    command->add_flag("--force", options->force, "replace the file of --write-html");
    command->callback([options, port, page, &chosen] {
        if (page->count() > 0 && (port->count() > 0 || options->noOpen)) {
            throw CLI::ExcludesError("--write-html", port->count() > 0 ? "--port" : "--no-open");
        }
        if (options->force && page->count() == 0) {
            throw CLI::RequiresError("--force", "--write-html");
        }
        if (page->count() > 0) {
            requireWord(options->page, "--write-html", "a file");
        }
        chosen = [options] { return runView(*options); };
    });
}

} // namespace Tavrin::SplatProgram
