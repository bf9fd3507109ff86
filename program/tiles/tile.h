// The datasets of a city, as a catalogue needs them.
#pragma once

#include "program/tiles/footprint.h"
#include "reader/verify.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// One dataset that verifies in the quick form.
struct Tile {
    std::string name;             // as given
    std::filesystem::path folder; // absolute; links are followed in its parents alone
    SplatReader::Meta meta;
    std::uint64_t splats = 0; // that the files hold
    std::uint64_t cells = 0;
    std::uint64_t metaBytes = 0;
    std::uint64_t indexBytes = 0;
    std::uint64_t dataBytes = 0;
    std::uint64_t coefficientBytes = 0;
    std::chrono::sys_seconds made{}; // when the meta document was written last
    // The box of the splats' centres, offset included.
    SplatReader::Point min{};
    SplatReader::Point max{};
    std::uint64_t unplaced = 0; // splats at no finite position, which the box does not hold

    Rectangle ground() const { return {min[0], min[1], max[0], max[1]}; }
};

// One that is left out, and why.
struct RefusedTile {
    std::string name;
    std::string reason;
};

struct Tiles {
    std::vector<Tile> good; // in the order given
    std::vector<RefusedTile> refused;
};

// The folder of a dataset as Tile::folder has it. Throws a Failure (InputRefused) when there is no folder.
std::filesystem::path tileFolder(const std::string& name);

// Verifies all datasets in the quick form and reads the positions of all their splats, on so many threads.
// `progress` is told now and then, by one thread at a time, of the share of the splats that has been read. It
// may throw to end the reading.
Tiles readTiles(const std::vector<std::string>& names, unsigned threads,
                const std::function<void(double share)>& progress);

} // namespace Tavrin::SplatProgram
