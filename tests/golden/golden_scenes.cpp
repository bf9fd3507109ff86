#include "tests/golden/golden_scenes.h"

#include "tests/support/conversion.h"
#include "tests/support/files.h"
#include "tests/support/sha256.h"

#include <algorithm>
#include <ostream>
#include <sstream>
#include <stdexcept>

namespace golden {

namespace fs = std::filesystem;

namespace {

constexpr const char* metaFile = "converted_from_ply.ytr";

scenes::SceneOptions withCoefficients(std::uint64_t splats, std::uint64_t seed) {
    scenes::SceneOptions options;
    options.splats = splats;
    options.seed = seed;
    return options;
}

scenes::SceneOptions plain(std::uint64_t splats, std::uint64_t seed) {
    scenes::SceneOptions options = withCoefficients(splats, seed);
    options.coefficients = false;
    return options;
}

scenes::SceneOptions withEveryComment(std::uint64_t splats, std::uint64_t seed) {
    scenes::SceneOptions options = withCoefficients(splats, seed);
    options.extentX = 60.0;
    options.extentY = 45.0;
    options.centre = {1000.0, -500.0, 30.0};
    options.normals = true;
    options.statedBounds = true;
    options.source = "scan-2";
    options.dataType = "mesh";
    options.epsg = 32632;
    options.offset = {{500137.0225660622527357, 5414437.5482058529742062, 312.737699999473989}};
    options.shift = {{-0.1, 1e-7, 12.345678}};
    options.scale = {{1.0, 0.001, 3.0}};
    return options;
}

} // namespace

const std::vector<Scene>& goldenScenes() {
    static const std::vector<Scene> list = [] {
        Scene grid{"grid_plain", true, plain(1'050'000, 5)};
        grid.options.extentX = 333.0;
        grid.options.extentY = 150.0;
        grid.options.statedBounds = true;
        Scene grouped{"grid_coefficients", true, withCoefficients(1'000'001, 6)};
        grouped.options.extentX = 90.0; // both extents below 100 units
        grouped.options.extentY = 70.0;
        grouped.options.order = scenes::Order::grouped;
        Scene twoBlocks{"two_blocks_plain", true, plain(2'000'001, 7)};
        twoBlocks.options.normals = true;
        Scene threeBlocks{"three_blocks_plain", true, plain(4'000'001, 8)};
        threeBlocks.options.extentX = 600.0;
        threeBlocks.options.extentY = 500.0;
        return std::vector<Scene>{{"one_splat", false, withCoefficients(1, 3)},
                                  {"cell_plain", false, plain(20'000, 1)},
                                  {"cell_coefficients", false, withEveryComment(20'000, 2)},
                                  {"million_plain", true, plain(1'000'000, 4)},
                                  grid,
                                  grouped,
                                  twoBlocks,
                                  threeBlocks};
    }();
    return list;
}

const Scene& goldenScene(const std::string& name) {
    const auto found = std::find_if(goldenScenes().begin(), goldenScenes().end(),
                                    [&name](const Scene& scene) { return scene.name == name; });
    if (found == goldenScenes().end()) {
        throw std::runtime_error("no golden scene " + name);
    }
    return *found;
}

std::vector<Scene> scenesOfSize(bool large) {
    std::vector<Scene> list;
    for (const Scene& scene : goldenScenes()) {
        if (scene.large == large) {
            list.push_back(scene);
        }
    }
    return list;
}

void PrintTo(const Scene& scene, std::ostream* stream) {
    *stream << scene.name;
}

Hashes hashesOf(const Scene& scene, const fs::path& scratch, const Converter& convert) {
    const fs::path input = scratch / "scene.ply";
    const fs::path output = scratch / "out";
    scenes::writeScene(input, scene.options);
    convert(input, output);
    Hashes hashes{{"scene.ply", support::sha256OfFile(input)}};
    for (const std::string& name : support::filesUnder(output)) {
        if (name == metaFile) {
            const std::string meta = support::withPlainLineEnds(support::readFile(output / name));
            hashes[name] = support::sha256(support::withoutGuid(meta));
        } else if (name != "log.txt") {
            hashes[name] = support::sha256OfFile(output / name);
        }
    }
    fs::remove_all(input);
    fs::remove_all(output);
    return hashes;
}

Hashes hashesOf(const Scene& scene, const fs::path& scratch) {
    return hashesOf(scene, scratch, [&](const fs::path& input, const fs::path& output) {
        const support::HostReport report = support::convertOnce(scratch, input, output);
        if (report.calls.size() != 1 || report.calls.front().result != 0) {
            throw std::runtime_error("the conversion of " + scene.name + " did not come to its end: " +
                                     report.childFailure + report.process.output + report.process.errors);
        }
    });
}

std::map<std::string, Hashes> expectedHashes() {
    std::istringstream lines(support::withPlainLineEnds(support::readFile(PLYCONVERT_GOLDEN_HASHES)));
    std::map<std::string, Hashes> expected;
    std::string hash;
    std::string path;
    while (lines >> hash >> path) {
        const std::size_t slash = path.find('/');
        expected[path.substr(0, slash)][path.substr(slash + 1)] = hash;
    }
    return expected;
}

std::string linesOf(const Scene& scene, const Hashes& hashes) {
    std::string lines;
    for (const auto& [file, hash] : hashes) {
        lines += hash + "  " + scene.name + "/" + file + "\n";
    }
    return lines;
}

} // namespace golden
