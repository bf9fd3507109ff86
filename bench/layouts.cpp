#include "bench/layouts.h"

#include "bench/table.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <fstream>

#include <unistd.h>

namespace bench {
namespace {

namespace fs = std::filesystem;
using measure::Run;

const std::vector<std::string> kinds = {"shuffled",   "degree1",     "doubles", "big-endian",
                                        "compressed", "ascii",       "spz",     "spz-degree0",
#if PLYCONVERT_ZSTD
                                        "spz4",       "spz4-degree0"
#endif
};

// The seconds before the program verifies what it wrote.
double passesOf(const nlohmann::json& report) {
    const nlohmann::json& seconds = report.at("seconds");
    return seconds.at("opening").get<double>() + seconds.at("measuring").get<double>() +
           seconds.at("writing").get<double>();
}

void convert(Layout& item, const fs::path& input, const fs::path& folder) {
    const fs::path report = folder / "report.json";
    fs::remove_all(folder / "dataset");
    item.runs.push_back(measure::run({PLYCONVERT_PROGRAM, "convert", "--quiet", "--report", report.string(),
                                      input.string(), (folder / "dataset").string()}));
    const auto told = nlohmann::json::parse(std::ifstream(report));
    item.passes.push_back(passesOf(told));
    item.splats = told.at("splats").at("read").get<std::uint64_t>();
}

} // namespace

std::vector<Layout> measureLayouts(const fs::path& scene, const fs::path& folder, int runs) {
    std::vector<fs::path> paths{scene};
    std::vector<Layout> layouts(1);
    layouts.front().kind = "canonical";
    for (const std::string& kind : kinds) {
        paths.push_back(folder / kind);
        layouts.emplace_back().kind = kind;
        measure::run({sibling("foreign"), kind, scene.string(), paths.back().string()});
    }
    sync(); // so that nothing is written back during the runs
    for (std::size_t i = 0; i < paths.size(); ++i) {
        layouts[i].inputBytes = fs::file_size(paths[i]);
    }
    for (int k = 0; k < runs; ++k) {
        for (std::size_t i = 0; i < paths.size(); ++i) {
            if (layouts[i].kind.starts_with("spz")) {
                layouts[i].unpackings.push_back(measure::run({sibling("unpackonce"), paths[i].string()}));
            }
            convert(layouts[i], paths[i], folder);
        }
    }
    return layouts;
}

void printLayouts(const std::vector<Layout>& layouts) {
    std::vector<std::vector<std::string>> rows{
        {"program: form of the scene", "wall s", "spread s", "CPU s", "x canonical, CPU", "both passes s",
         "unpacking s", "passes x unpacking", "MB/s in", "MB/s a processor", "peak MB", "allowed MB"}};
    const double canonical = medianOf(layouts.front().runs, cpuOf);
    for (const Layout& item : layouts) {
        const double wall = medianOf(item.runs, wallOf);
        const double cpu = medianOf(item.runs, cpuOf);
        const double passes = measure::median(item.passes);
        const double unpacking = item.unpackings.empty() ? 0.0 : medianOf(item.unpackings, wallOf);
        const double megabytes = static_cast<double>(item.inputBytes) / 1e6;
        const double allowed = (12.0 * static_cast<double>(item.splats) + 64e6) / 1e6;
        rows.push_back({item.kind, fmt::format("{:.3f}", wall), spread(item.runs), fmt::format("{:.3f}", cpu),
                        fmt::format("{:.2f}", cpu / canonical), fmt::format("{:.3f}", passes),
                        unpacking > 0.0 ? fmt::format("{:.3f}", unpacking) : "",
                        unpacking > 0.0 ? fmt::format("{:.2f}", passes / unpacking) : "",
                        fmt::format("{:.0f}", megabytes / wall), fmt::format("{:.0f}", megabytes / cpu),
                        fmt::format("{:.0f}", medianOf(item.runs, peakOf) / 1e6),
                        fmt::format("{:.0f}", allowed)});
    }
    printTable(rows);
}

} // namespace bench
