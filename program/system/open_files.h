// How many files this process may have open.
#pragma once

#include <cstdint>

namespace Tavrin::SplatProgram {

// After allowManyFiles(). The largest number if the system sets no limit, or does not tell it.
std::uint64_t mostOpenFiles();

} // namespace Tavrin::SplatProgram
