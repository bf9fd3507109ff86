// endtoend: measures whole conversions of generated scenes, by the library and by the stream, beside the
// floor of the same run. Prints Markdown tables, or JSON with every single run.
#include "bench/layouts.h"
#include "bench/measure.h"
#include "bench/table.h"
#include "plyconvert.h"
#include "src/records.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <sys/utsname.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using bench::medianOf;
using bench::printTable;
using bench::sibling;
using bench::spread;
using bench::wallOf;
using measure::Run;

struct Options {
    std::vector<std::uint64_t> splats{1'000, 100'000, 1'000'000, 3'000'000, 10'000'000};
    std::string coefficients = "both";
    int runs = 5;
    fs::path folder;
    bool scaling = false;
    std::uint64_t cells = 0;   // splats of the scenes with few and many cells; 0: not measured
    std::uint64_t layouts = 0; // splats of the scenes in other forms; 0: not measured
    bool claimsMemory = true;
    bool json = false;
};

struct Case {
    std::uint64_t splats = 0;
    bool coefficients = true;
    std::uint64_t inputBytes = 0;
    std::uint64_t outputBytes = 0;
    std::vector<Run> conversions;
    std::vector<Run> streams;
    std::vector<Run> programs; // the whole command: check, passes, verification, flush
    std::vector<Run> floors;
    std::vector<Run> flushingFloors;

    std::uint64_t recordBytes() const {
        return Tavrin::GaussionSplat::recordLayout(coefficients).floats * sizeof(float);
    }
    std::string name() const { return fmt::format("{} {}", splats, coefficients ? "with" : "without"); }
    // The memory that the converter may use: the regrouped splats, one block of input, and 64 MB for
    // everything else.
    double allowedPeak() const {
        const double block = static_cast<double>(std::min<std::uint64_t>(splats, 2'000'000) * recordBytes());
        return 288.0 * static_cast<double>(splats) + block + 64e6;
    }
    // The memory that the stream may use. It keeps x and y of each splat where the header states no bounds.
    double allowedProgramPeak() const { return allowedStreamPeak() + 64e6; }
    double allowedStreamPeak() const {
        return (coefficients ? 12.0 : 4.0) * static_cast<double>(splats) + 64e6;
    }
};

// Seconds of scan and chunker on one and on two processors, and the bytes that one more worker adds.
struct Scaling {
    std::uint64_t splats = 0;
    double one = 0.0;
    double two = 0.0;
    double streamOne = 0.0; // the whole stream
    double streamTwo = 0.0;
    std::vector<std::pair<int, double>> peakByWorkers;
};

// One scene in few and in many cells, with its splats in random order.
struct Cells {
    std::uint64_t splats = 0;
    std::uint64_t cells = 0;
    std::vector<Run> streams;
};

std::uint64_t bytesIn(const fs::path& folder) {
    std::uint64_t sum = 0;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        sum += entry.file_size();
    }
    return sum;
}

// A folder of this run. The destructor removes it with everything in it.
class Workplace {
public:
    explicit Workplace(const fs::path& parent) : folder_(parent / fmt::format("endtoend-{}", getpid())) {
        fs::create_directories(folder_);
    }
    ~Workplace() {
        std::error_code ignored;
        fs::remove_all(folder_, ignored);
    }
    Workplace(const Workplace&) = delete;
    Workplace& operator=(const Workplace&) = delete;

    const fs::path& folder() const { return folder_; }
    fs::path scene() const { return folder_ / "scene.ply"; }
    fs::path dataset() const { return folder_ / "dataset"; }
    fs::path copy() const { return folder_ / "copy"; }

    // With coefficients the header states no bounds, so the converter scans for them. Without coefficients it
    // states them, because the scan is made for the wider record.
    void makeScene(std::uint64_t splats, bool coefficients, const std::vector<std::string>& more = {}) const {
        std::vector<std::string> command{PLYCONVERT_MAKESCENE, "--splats", std::to_string(splats),
                                         scene().string()};
        command.insert(command.end(), more.begin(), more.end());
        if (!coefficients) {
            command.insert(command.end(), {"--no-coefficients", "--bounds"});
        }
        measure::run(command);
        sync(); // so that the scene is not written back during the runs
    }
    Run convert(int processors = 0) const {
        fs::remove_all(dataset());
        return measure::run({sibling("convertonce"), scene().string(), dataset().string()},
                            dataset() / "log.txt", processors);
    }
    Run stream(int processors) const {
        fs::remove_all(dataset());
        return measure::run(
            {sibling("streamonce"), scene().string(), dataset().string(), std::to_string(processors)}, {},
            processors);
    }
    Run program() const {
        fs::remove_all(dataset());
        return measure::run({PLYCONVERT_PROGRAM, "--quiet", scene().string(), dataset().string()});
    }
    Run floor(std::uint64_t outputBytes, bool flushes = false) const {
        fs::remove(copy());
        std::vector<std::string> command{sibling("copyfloor"), scene().string(), copy().string(),
                                         std::to_string(outputBytes)};
        if (flushes) {
            command.push_back("flush");
        }
        return measure::run(command);
    }

private:
    fs::path folder_;
};

// As much memory as a run of the case may use, including files in the page cache.
void claimMemory(const Options& options, const Case& item) {
    if (options.claimsMemory) {
        measure::claimMemory(static_cast<std::uint64_t>(item.allowedPeak()) + item.outputBytes);
    }
}

int processorCount() {
    return static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
}

Case measureCase(const Workplace& place, const Options& options, std::uint64_t splats, bool coefficients) {
    Case result;
    result.splats = splats;
    result.coefficients = coefficients;
    place.makeScene(splats, coefficients);
    place.convert(); // not timed: fills the caches and gives the size of the output
    result.inputBytes = fs::file_size(place.scene());
    result.outputBytes = bytesIn(place.dataset());
    for (int k = 0; k < options.runs; ++k) {
        claimMemory(options, result);
        result.floors.push_back(place.floor(result.outputBytes));
        fs::remove(place.copy());
        claimMemory(options, result);
        result.conversions.push_back(place.convert());
        fs::remove_all(place.dataset());
        claimMemory(options, result);
        result.streams.push_back(place.stream(processorCount()));
        fs::remove_all(place.dataset());
        claimMemory(options, result);
        result.flushingFloors.push_back(place.floor(result.outputBytes, true));
        fs::remove(place.copy());
        claimMemory(options, result);
        result.programs.push_back(place.program());
        fs::remove_all(place.dataset());
    }
    return result;
}

// Uses the scene of the case measured last.
Scaling measureScaling(const Workplace& place, const Options& options, const Case& item) {
    Scaling result;
    result.splats = item.splats;
    const auto convert = [&](int processors) {
        claimMemory(options, item);
        return place.convert(processors);
    };
    const auto parallelPart = [](const Run& run) { return run.stages[0] + run.stages[1]; };
    const auto stream = [&](int processors) {
        claimMemory(options, item);
        return place.stream(processors);
    };
    std::vector<Run> one;
    std::vector<Run> two;
    std::vector<Run> streamOne;
    std::vector<Run> streamTwo;
    for (int k = 0; k < options.runs; ++k) {
        one.push_back(convert(1));
        two.push_back(convert(2));
        streamOne.push_back(stream(1));
        streamTwo.push_back(stream(2));
    }
    result.streamOne = medianOf(streamOne, wallOf);
    result.streamTwo = medianOf(streamTwo, wallOf);
    result.one = medianOf(one, parallelPart);
    result.two = medianOf(two, parallelPart);
    for (const int workers : {1, 2, 3, 5}) {
        const Run run = measure::run({sibling("chunkonce"), place.scene().string(), std::to_string(workers)});
        result.peakByWorkers.emplace_back(workers, run.peak);
    }
    return result;
}

// The town in 63 cells, and stretched over many.
std::vector<Cells> measureCells(const Workplace& place, const Options& options) {
    const std::vector<std::vector<std::string>> extents{{"250", "200"}, {"3790", "1870"}, {"14980", "11980"}};
    constexpr std::uint64_t entryBytes = 20;
    std::vector<Cells> result;
    for (const std::vector<std::string>& extent : extents) {
        Cells item;
        item.splats = options.cells;
        place.makeScene(item.splats, true, {"--extent", extent[0], extent[1]});
        place.stream(processorCount()); // not timed: fills the caches
        item.cells = fs::file_size(place.dataset() / "index.bin") / entryBytes;
        for (int k = 0; k < options.runs; ++k) {
            item.streams.push_back(place.stream(processorCount()));
        }
        fs::remove_all(place.dataset());
        result.push_back(item);
    }
    return result;
}

std::vector<std::string> wholeRow(const Case& item, const char* by, const std::vector<Run>& runs,
                                  const std::vector<Run>& floors, double allowedPeak) {
    const double wall = medianOf(runs, wallOf);
    const double floor = medianOf(floors, wallOf);
    const double cpu = medianOf(runs, [](const Run& run) { return run.cpu; });
    const double peak = medianOf(runs, [](const Run& run) { return run.peak; });
    return {item.name(),
            by,
            fmt::format("{:.3f}", wall),
            spread(runs),
            fmt::format("{:.3f}", floor),
            fmt::format("{:.2f}", wall / floor),
            fmt::format("{:.3f}", cpu),
            fmt::format("{:.0f}", peak / 1e6),
            fmt::format("{:.0f}", allowedPeak / 1e6),
            fmt::format("{:.2f}", static_cast<double>(item.splats) / wall / 1e6),
            fmt::format("{:.0f}", static_cast<double>(item.inputBytes) / wall / 1e6)};
}

void printCases(const std::vector<Case>& cases) {
    std::vector<std::vector<std::string>> whole{{"splats, coefficients", "by", "wall s", "spread s",
                                                 "floor s", "x floor", "CPU s", "peak MB", "allowed MB",
                                                 "M splats/s", "MB/s in"}};
    std::vector<std::vector<std::string>> stages{{"library: splats, coefficients"}};
    for (const char* name : measure::stageNames) {
        stages.front().push_back(fmt::format("{} s", name));
    }
    for (const Case& item : cases) {
        whole.push_back(wholeRow(item, "library", item.conversions, item.floors, item.allowedPeak()));
        whole.push_back(wholeRow(item, "stream", item.streams, item.floors, item.allowedStreamPeak()));
        whole.push_back(
            wholeRow(item, "program", item.programs, item.flushingFloors, item.allowedProgramPeak()));
        stages.push_back({item.name()});
        for (std::size_t stage = 0; stage < measure::stageCount; ++stage) {
            const double time =
                medianOf(item.conversions, [stage](const Run& run) { return run.stages[stage]; });
            stages.back().push_back(fmt::format("{:.3f}", time));
        }
    }
    printTable(whole);
    printTable(stages);
}

void printScaling(const Scaling& scaling) {
    std::vector<std::vector<std::string>> rows{
        {fmt::format("{}: header, scan and decode", scaling.splats), "s"}};
    rows.push_back({"1 processor", fmt::format("{:.3f}", scaling.one)});
    rows.push_back({"2 processors", fmt::format("{:.3f}", scaling.two)});
    rows.push_back({"faster by", fmt::format("{:.2f} x", scaling.one / scaling.two)});
    printTable(rows);
    rows = {{fmt::format("{}: whole stream", scaling.splats), "s"}};
    rows.push_back({"1 processor", fmt::format("{:.3f}", scaling.streamOne)});
    rows.push_back({"2 processors", fmt::format("{:.3f}", scaling.streamTwo)});
    rows.push_back({"faster by", fmt::format("{:.2f} x", scaling.streamOne / scaling.streamTwo)});
    printTable(rows);
    rows = {{fmt::format("{}: chunker alone", scaling.splats), "peak MB"}};
    for (const auto& [workers, peak] : scaling.peakByWorkers) {
        rows.push_back({fmt::format("{} worker{}", workers, workers == 1 ? "" : "s"),
                        fmt::format("{:.1f}", peak / 1e6)});
    }
    printTable(rows);
}

void printCells(const std::vector<Cells>& cells) {
    std::vector<std::vector<std::string>> rows{{"stream: splats, cells", "wall s", "spread s", "peak MB"}};
    for (const Cells& item : cells) {
        const double peak = medianOf(item.streams, [](const Run& run) { return run.peak; });
        rows.push_back({fmt::format("{} in {}", item.splats, item.cells),
                        fmt::format("{:.3f}", medianOf(item.streams, wallOf)), spread(item.streams),
                        fmt::format("{:.0f}", peak / 1e6)});
    }
    printTable(rows);
}

// The value after the colon in the first line of a file under /proc that begins with the key.
std::string systemFact(const char* path, const std::string& key) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, key.size(), key) == 0) {
            const std::size_t value = line.find_first_not_of(" \t", line.find(':') + 1);
            return value == std::string::npos ? "" : line.substr(value);
        }
    }
    return "unknown";
}

nlohmann::json machine() {
    utsname names{};
    uname(&names);
    return {{"processor", systemFact("/proc/cpuinfo", "model name")},
            {"processors", sysconf(_SC_NPROCESSORS_ONLN)},
            {"memory", systemFact("/proc/meminfo", "MemTotal")},
            {"system", fmt::format("{} {}", names.sysname, names.release)},
            {"compiler", __VERSION__},
            {"version", fmt::format("{}.{}.{}", PLYCONVERT_VERSION_MAJOR, PLYCONVERT_VERSION_MINOR,
                                    PLYCONVERT_VERSION_PATCH)}};
}

nlohmann::json asJson(const std::vector<Run>& runs) {
    nlohmann::json list = nlohmann::json::array();
    for (const Run& run : runs) {
        nlohmann::json entry{{"wall", run.wall}, {"cpu", run.cpu}, {"peak", run.peak}};
        for (std::size_t stage = 0; stage < measure::stageCount; ++stage) {
            entry["stages"][measure::stageNames[stage]] = run.stages[stage];
        }
        list.push_back(entry);
    }
    return list;
}

void printJson(const std::vector<Case>& cases, const std::vector<Scaling>& scaling,
               const std::vector<Cells>& cells) {
    nlohmann::json document{{"machine", machine()}, {"cases", nlohmann::json::array()}};
    for (const Case& item : cases) {
        document["cases"].push_back({{"splats", item.splats},
                                     {"coefficients", item.coefficients},
                                     {"inputBytes", item.inputBytes},
                                     {"outputBytes", item.outputBytes},
                                     {"allowedPeak", item.allowedPeak()},
                                     {"allowedStreamPeak", item.allowedStreamPeak()},
                                     {"conversions", asJson(item.conversions)},
                                     {"streams", asJson(item.streams)},
                                     {"programs", asJson(item.programs)},
                                     {"floors", asJson(item.floors)},
                                     {"flushingFloors", asJson(item.flushingFloors)}});
    }
    for (const Scaling& item : scaling) {
        document["scaling"] = {{"splats", item.splats},
                               {"oneProcessor", item.one},
                               {"twoProcessors", item.two},
                               {"streamOnOneProcessor", item.streamOne},
                               {"streamOnTwoProcessors", item.streamTwo}};
        for (const auto& [workers, peak] : item.peakByWorkers) {
            document["scaling"]["peakByWorkers"][std::to_string(workers)] = peak;
        }
    }
    for (const Cells& item : cells) {
        document["cells"].push_back(
            {{"splats", item.splats}, {"cells", item.cells}, {"streams", asJson(item.streams)}});
    }
    std::cout << document.dump(2) << "\n";
}

void declare(CLI::App& app, Options& options) {
    app.add_option("--splats", options.splats, "scene sizes (1000 100000 1000000 3000000 10000000)");
    app.add_option("--coefficients", options.coefficients, "with, without or both")
        ->check(CLI::IsMember({"with", "without", "both"}))
        ->capture_default_str();
    app.add_option("--runs", options.runs, "runs of each case")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_option("--folder", options.folder,
                   "where scenes and datasets are written, and removed again (system's "
                   "temporary folder)");
    app.add_flag(
        "--scaling", options.scaling,
        "also one processor against two, and workers' memory, with the largest scene with coefficients");
    app.add_option("--layouts", options.layouts, "also a scene of so many splats in every form that is read");
    app.add_option("--cells", options.cells,
                   "also scenes of so many splats in 63 cells, in thousands and in hundreds of thousands");
    app.add_flag("!--no-claim", options.claimsMemory,
                 "do not have another process fill and free as much memory just before each run");
    app.add_flag("--json", options.json, "JSON with every run instead of tables");
}

void measureAll(const Options& options) {
    const Workplace place(options.folder.empty() ? fs::temp_directory_path() : options.folder);
    const std::uint64_t most = *std::max_element(options.splats.begin(), options.splats.end());
    std::vector<Case> cases;
    std::vector<Scaling> scaling;
    for (const bool coefficients : {true, false}) {
        if (options.coefficients == (coefficients ? "without" : "with")) {
            continue;
        }
        for (const std::uint64_t splats : options.splats) {
            cases.push_back(measureCase(place, options, splats, coefficients));
            if (options.scaling && coefficients && splats == most) {
                scaling.push_back(measureScaling(place, options, cases.back()));
            }
        }
    }
    const std::vector<Cells> cells = options.cells > 0 ? measureCells(place, options) : std::vector<Cells>{};
    if (options.json) {
        printJson(cases, scaling, cells);
        return;
    }
    const nlohmann::json facts = machine();
    std::cout << fmt::format("{}, {} processors, {}, {}, compiler {}; {} runs, warm cache{}, medians.\n\n",
                             facts["processor"].get<std::string>(), facts["processors"].get<long>(),
                             facts["memory"].get<std::string>(), facts["system"].get<std::string>(),
                             facts["compiler"].get<std::string>(), options.runs,
                             options.claimsMemory ? ", memory claimed" : "");
    printCases(cases);
    for (const Scaling& item : scaling) {
        printScaling(item);
    }
    if (options.layouts > 0) {
        place.makeScene(options.layouts, true);
        bench::printLayouts(bench::measureLayouts(place.scene(), place.folder(), options.runs));
    }
    if (!cells.empty()) {
        printCells(cells);
    }
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app(
        "Measures whole conversions of generated scenes against reading the input and writing the output.",
        "endtoend");
    Options options;
    declare(app, options);
    CLI11_PARSE(app, argc, argv);
    try {
        measureAll(options);
    } catch (const std::exception& error) {
        std::cerr << "endtoend: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
