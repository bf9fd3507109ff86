// Points and boxes of scenes.
#pragma once

#include "source/comments.h"

namespace Tavrin::SplatProgram {

using SplatSource::Box;
using SplatSource::Point;

} // namespace Tavrin::SplatProgram
