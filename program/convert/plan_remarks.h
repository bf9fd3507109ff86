// Warnings about a measured scene.
#pragma once

#include "program/convert/plan.h"

namespace Tavrin::SplatProgram {

// Warns of splats whose position is not finite or lies outside the stated bounds, of missing bounds, of
// positions that single precision holds coarsely, and of grids and cells too large for readers to tell apart.
void remarkPlan(const Plan& plan, Warnings& warnings);

// The distance from the largest coordinate of an axis to the next one that single precision can hold.
Point positionSteps(const Box& box);

} // namespace Tavrin::SplatProgram
