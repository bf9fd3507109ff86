// How passes over a scene tell how far they are.
#pragma once

#include <functional>

namespace Tavrin::SplatProgram {

// Called now and then with the share of a pass that is done, 0 to 1.
using ScanProgress = std::function<void(double)>;

} // namespace Tavrin::SplatProgram
