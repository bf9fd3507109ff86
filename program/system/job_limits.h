// What a scheduler has given to the job that this process belongs to.
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

// By the variables that Slurm sets for a job: SLURM_CPUS_PER_TASK, SLURM_MEM_PER_NODE, SLURM_MEM_PER_CPU (for
// the processors of the task, or else for those of the job on this node). `variable` gives the text of an
// environment variable, or null. What is missing, 0 or no number limits nothing.
JobLimits jobLimits(const std::function<const char*(const char*)>& variable);

// Of this process.
JobLimits jobLimits();

// The least that the control group of a process and its ancestors leave, in bytes; UINT64_MAX without a
// limit. `groups` has the lines of /proc/self/cgroup, `root` stands for /sys/fs/cgroup. Linux alone.
std::uint64_t groupMemory(const std::string& groups, const std::filesystem::path& root);

} // namespace Tavrin::SplatProgram
