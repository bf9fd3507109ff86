// Reads the datasets of a city for a catalogue.
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

// A dataset that passes the quick verification.
struct Tile {
    std::string name; // as given
    // Absolute; links in its parents are resolved, a link as its last component is kept.
    std::filesystem::path folder;
    SplatReader::Meta meta;
    std::uint64_t splats = 0; // that the files hold
    std::uint64_t cells = 0;
    std::uint64_t metaBytes = 0;
    std::uint64_t indexBytes = 0;
    std::uint64_t dataBytes = 0;
    std::uint64_t coefficientBytes = 0;
    std::chrono::sys_seconds made{}; // when the meta document was last written
    // The box of the splats' centres, offset included.
    SplatReader::Point min{};
    SplatReader::Point max{};
    std::uint64_t unplaced = 0; // splats whose position is not finite; the box leaves them out

    Rectangle ground() const { return {min[0], min[1], max[0], max[1]}; }
};

// A dataset that is left out, and the reason.
struct RefusedTile {
    std::string name;
    std::string reason;
};

struct Tiles {
    std::vector<Tile> good; // in the order given
    std::vector<RefusedTile> refused;
};

// Tile::folder of the dataset called `name`. Throws a Failure (InputRefused) when there is no such folder.
std::filesystem::path tileFolder(const std::string& name);

// Runs the quick verification on all datasets and reads the positions of all their splats, with `threads`
// threads. `progress` gets the share of the splats read, 0 to 1, now and then and from one thread at a time.
// It may throw to stop the reading.
Tiles readTiles(const std::vector<std::string>& names, unsigned threads,
                const std::function<void(double share)>& progress);

} // namespace Tavrin::SplatProgram
