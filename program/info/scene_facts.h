// The facts that `info` prints about a scene, or about a PLY file without splats.
#pragma once

#include "program/info/distribution.h"
#include "program/scene/scan_progress.h"
#include "source/comments.h"
#include "source/ply_header.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

struct SceneFacts {
    std::string name; // as given
    std::uint64_t bytes = 0;
    std::string kind;                    // "PLY", or another format of splats
    SplatSource::PlyHeader header;       // of a PLY file
    std::vector<std::string> comments;   // comment and obj_info lines, unchanged
    std::optional<std::uint64_t> splats; // records of the element `vertex`, if there is one
    std::uint64_t recordBytes = 0;       // of a vertex; 0 when it has a list
    std::string layoutProblem;           // why the converter refuses the file; empty if it accepts it
    bool isCanonical = false;            // the records have the layout that the library reads
    std::vector<std::string> remarks;    // the warnings of a conversion
    std::optional<int> degree;           // of the spherical harmonics, if the property names tell
    SplatSource::SceneComments stated;
    // Offset and error of the positions in a conversion of this file alone.
    struct Place {
        std::string text;               // as a plan prints it
        std::array<double, 3> offset{}; // of the dataset
        double largestError = 0.0;      // of a position, in the scene's units
    };
    std::optional<Place> place;
    std::string bodyProblem;         // why no values can be read; empty when they can
    std::uint64_t expectedBytes = 0; // of the whole file, when its elements have fixed sizes; else 0
    bool scanned = false;            // every record was read
    std::uint64_t sampled = 0;       // records behind the percentiles
    std::vector<Distribution> attributes;
};

// With `scan` every record is read, so that the smallest and largest values are those of the whole file;
// without it a sample is read. Throws a Failure (InputRefused) when the file has no known format or cannot be
// read.
SceneFacts readSceneFacts(const std::string& name, bool scan, const ScanProgress& progress);

} // namespace Tavrin::SplatProgram
