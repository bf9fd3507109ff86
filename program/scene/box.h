// The point and box types of `source` under the program's names.
#pragma once

#include "source/comments.h"

namespace Tavrin::SplatProgram {

using SplatSource::Box;
using SplatSource::Point;

} // namespace Tavrin::SplatProgram
