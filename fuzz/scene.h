// Small splat files made of the bytes of a fuzz input.
#pragma once

#include "fuzz/target.h"

#include <cstdint>
#include <string>

namespace fuzz {

struct Scene {
    std::string file;
    std::uint64_t blockSplats = 1; // of the first conversion
    std::uint64_t otherBlockSplats = 1;
    std::size_t countChoice = 0; // in 0 to 3
};

Scene sceneOf(Source& source);

} // namespace fuzz
