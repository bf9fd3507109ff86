// The progress function of passes over a scene.
#pragma once

#include <functional>

namespace Tavrin::SplatProgram {

// Called now and then with the share of a pass that is done, 0 to 1.
using ScanProgress = std::function<void(double)>;

} // namespace Tavrin::SplatProgram
