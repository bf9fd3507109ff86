// Plans of many tiles, for people, for programs and for Slurm.
#pragma once

#include "program/tiles/tile_plan.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// A table and the totals. Lines have at most `columns` columns (at least 80), except reasons of refusals.
std::string plansText(const std::vector<TilePlan>& tiles, const PlanWish& wish, std::size_t columns);

// One JSON object on one line.
std::string plansJson(const std::vector<TilePlan>& tiles, const PlanWish& wish);

// The lines "#SBATCH --NAME=VALUE" of an array job, and as comments what they assume. Task N converts tile N,
// counted from 0; each has the resources for the largest tile. At least one tile is known.
std::string plansSlurm(const std::vector<TilePlan>& tiles, const PlanWish& wish);

} // namespace Tavrin::SplatProgram
