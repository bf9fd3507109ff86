// Advice to crop a scene with far outliers.
#pragma once

#include "program/scene/box.h"
#include "source/merge.h"

#include <string>

namespace Tavrin::SplatProgram {

// The option --crop that keeps the bulk of a scene, ready to copy. Empty unless on some axis `extent`, the
// box of the scene's positions, is more than ten times as long as the span from the 1st to the 99th
// percentile of a sample. Also empty for several inputs, whose coordinates may differ. Throws what the source
// throws.
std::string cropAdvice(const SplatSource::Scene& scene, const Box& extent);

} // namespace Tavrin::SplatProgram
