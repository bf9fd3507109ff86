// A box that leaves out what lies far off.
#pragma once

#include "program/scene/box.h"
#include "source/merge.h"

#include <string>

namespace Tavrin::SplatProgram {

// The option --crop that keeps the bulk of a scene, ready to be copied, where its box is more than ten times
// as long on an axis as the span from the 1st to the 99th percentile of a sample; empty elsewhere, and for
// several inputs, whose coordinates may differ. `extent` is the box of the scene's positions. Throws what the
// source throws.
std::string cropAdvice(const SplatSource::Scene& scene, const Box& extent);

} // namespace Tavrin::SplatProgram
