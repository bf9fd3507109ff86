// Where the records of a splat PLY lie.
#pragma once

#include "program/scene/splat_layout.h"

#include <cstdint>
#include <filesystem>
#include <functional>

namespace Tavrin::SplatProgram {

struct SplatFile {
    std::filesystem::path path;
    std::uint64_t bodyAt = 0;  // byte offset of the first record
    std::uint64_t size = 0;    // bytes of the whole file
    std::uint64_t records = 0; // as declared, all of them in the file
    SplatLayout layout;
};

// Called now and then with the share of a pass that is done, 0 to 1.
using ScanProgress = std::function<void(double)>;

} // namespace Tavrin::SplatProgram
