// The limits that a scheduler (Slurm) or a control group sets for this process.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace Tavrin::SplatProgram {

struct JobLimits {
    std::optional<unsigned> processors;  // at least 1
    std::optional<std::uint64_t> memory; // bytes
};

// The limits by the variables that Slurm sets for a job: SLURM_CPUS_PER_TASK, SLURM_MEM_PER_NODE,
// SLURM_MEM_PER_CPU (times the processors of the task, or else those of the job on this node). `variable`
// returns the text of an environment variable, or null. A variable that is missing, 0 or not a number sets no
// limit.
JobLimits jobLimits(const std::function<const char*(const char*)>& variable);

// The limits of this process.
JobLimits jobLimits();

// The free memory of a control group, in bytes: the minimum over the group and its ancestors, UINT64_MAX
// without a limit. `groups` has the lines of /proc/self/cgroup; `root` is /sys/fs/cgroup, or a copy of it in
// tests. Linux only.
std::uint64_t groupMemory(const std::string& groups, const std::filesystem::path& root);

} // namespace Tavrin::SplatProgram
