#pragma once

#include "program/convert/verdict.h"
#include "program/scene/scene_comments.h"
#include "program/scene/scene_scan.h"

#include <optional>
#include <string>

namespace Tavrin::SplatProgram {

// An input whose records can be read as the header says.
struct InputFacts {
    std::string name; // as given
    SplatFile file;
    SceneComments comments;
};

// Everything that the header and the size of a file can tell. Refuses what the converter would misread or
// stumble over. Nothing is returned only for an unchecked input that has no readable splats; a path that
// leads to no readable file is always a Failure.
std::optional<InputFacts> checkInput(const std::string& name, Verdict& verdict);

// What the header's comments leave to be desired, once the scene has been measured.
// `leftOut` splats lie in no cell of the grid; 0 also where that is not known.
void remarkBounds(const InputFacts& input, const SceneExtent& extent, std::uint64_t leftOut,
                  Verdict& verdict);
void remarkPrecision(const InputFacts& input, const SceneExtent& extent, Verdict& verdict);

// The distance from the largest coordinate of an axis to the next one that single precision can hold.
Point positionSteps(const Box& box);

} // namespace Tavrin::SplatProgram
