// What a measured scene leaves to be desired.
#pragma once

#include "program/convert/plan.h"

namespace Tavrin::SplatProgram {

// Warns of splats at no finite position and outside the stated bounds, of bounds that are missing, of
// positions that single precision holds coarsely, and of grids and cells beyond what readers can tell apart.
void remarkPlan(const Plan& plan, Warnings& warnings);

// The distance from the largest coordinate of an axis to the next one that single precision can hold.
Point positionSteps(const Box& box);

} // namespace Tavrin::SplatProgram
