// Plans of many tiles, for people, for programs and for Slurm.
#pragma once

#include "program/tiles/tile_plan.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Tavrin::SplatProgram {

// A table and the totals, in lines of at most so many columns (at least 80) but for reasons of refusals.
std::string plansText(const std::vector<TilePlan>& tiles, const PlanWish& wish, std::size_t columns);

// One JSON object on one line.
std::string plansJson(const std::vector<TilePlan>& tiles, const PlanWish& wish);

// Lines "#SBATCH --NAME=VALUE" of an array job with a task for each tile, by its number from 0 on, that holds
// the largest of them; and what they assume, as comments. At least one tile is known.
std::string plansSlurm(const std::vector<TilePlan>& tiles, const PlanWish& wish);

} // namespace Tavrin::SplatProgram
