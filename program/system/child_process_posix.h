// What a child process calls between fork and _exit. Nothing here allocates memory or takes a lock, because
// another thread of the parent may have held one when it forked.
#pragma once

#include <vector>

namespace Tavrin::SplatProgram {

// Closes all descriptors but these, which are given in ascending order.
void closeAllBut(const std::vector<int>& handles);

} // namespace Tavrin::SplatProgram
